// web_form.h - forms that are sent to the endpoints of a provider, over HTTPS.

#ifndef WEB_FORM_H
#define WEB_FORM_H

#include <chrono>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavmail {

struct web_answer {
  long status = 0;
  std::string text;
  std::time_t date = 0;  // the server's clock, 0 when it does not tell
};

using form_fields = std::vector<std::pair<const char*, std::string_view>>;

// How the provider's certificate is checked, and how long an answer may take.
struct web_settings {
  std::string ca_file;  // "" for the system's certificates
  std::chrono::milliseconds patience;
};

// Sends the fields and takes the answer, whatever its status. No redirection is followed: it would
// take secrets elsewhere. Throws a problem: there is no answer, or one that is too long.
web_answer send_form(const std::string& url, const form_fields& fields,
                     const web_settings& settings);

// True for an address with HTTPS, and with HTTP on this machine only.
bool is_safe_address(const std::string& url);

std::string host_of(const std::string& url);

}  // namespace tavmail

#endif
