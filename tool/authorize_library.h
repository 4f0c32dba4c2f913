// authorize_library.h - what is left to libcurl and libqrencode: forms that go to a provider, the
// parts of addresses, and codes that a phone can read.
//
// It is a module (module.h).

#ifndef AUTHORIZE_LIBRARY_H
#define AUTHORIZE_LIBRARY_H

#include <string>

#include "web_form.h"

namespace tavmail {

enum class url_part { scheme, user, host };

struct web_request {
  const std::string& url;
  bool is_on_this_machine;  // it may go in clear, and past every proxy
  const form_fields& fields;
  const web_settings& settings;
  bool (*is_to_end)();  // asked while it runs
};

// There is no answer, or one that is too long.
enum class web_fault {
  no_such_host,
  bad_certificate,  // of another kind than the next two
  expired_certificate,
  early_certificate,  // not yet valid
  too_late,
  too_long,
  other
};

struct web_failure {
  web_fault kind;
  std::string details;  // as the library tells them
};

class authorize_library {
 public:
  virtual ~authorize_library() = default;

  // "" when the address lacks it.
  virtual std::string part_of(const std::string& url, url_part part) const = 0;
  // Throws a web_failure.
  virtual web_answer send(const web_request& request) const = 0;
  // See qr_code.h.
  virtual std::string qr_code(const std::string& text, int columns) const = 0;

  // Throws a problem when the module cannot be loaded.
  static const authorize_library& loaded();
};

}  // namespace tavmail

#endif
