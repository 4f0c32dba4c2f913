#include "authorize_library.h"

#include "module.h"

namespace tavmail {

const authorize_library& authorize_library::loaded() {
  static const void* const library = load_module(
      "authorize", "install libcurl and libqrencode, or a tavmail that was built with them");
  return *static_cast<const authorize_library*>(library);
}

}  // namespace tavmail
