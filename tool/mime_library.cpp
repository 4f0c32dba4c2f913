#include "mime_library.h"

#include "module.h"

namespace tavmail {

const mime_library& mime_library::loaded() {
  static const void* const library = load_module("mime", "install GMime 3, or tavmail again");
  return *static_cast<const mime_library*>(library);
}

}  // namespace tavmail
