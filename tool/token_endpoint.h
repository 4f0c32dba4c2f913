// token_endpoint.h - what is asked of a provider: OAuth 2.0 (RFC 6749) with the device
// authorization grant (RFC 8628).

#ifndef TOKEN_ENDPOINT_H
#define TOKEN_ENDPOINT_H

#include <chrono>
#include <optional>
#include <string>

#include "secret.h"
#include "token_provider.h"
#include "web_form.h"

namespace tavmail {

// What a person is asked to do.
struct consent_request {
  secret_text device_code;
  std::string user_code;
  std::string address;
  std::string full_address;  // with the code in it, "" for none
  std::chrono::seconds lifetime;
  std::chrono::seconds interval;  // between two questions
};

struct token_grant {
  secret_text access;
  std::optional<secret_text> refresh;
  std::chrono::seconds lifetime;  // 0 when it is not known
  std::string scope;              // "" when it is the one asked for
};

class token_endpoint {
 public:
  // `provider` must outlive it.
  explicit token_endpoint(const token_provider& provider);

  // Each waits no longer than `patience` and throws a problem.
  consent_request begin(std::chrono::milliseconds patience);
  // Nothing while the person has not agreed; then the interval may have grown, or the lifetime be
  // 0.
  std::optional<token_grant> ask(consent_request& request, std::chrono::milliseconds patience);
  token_grant refresh(const secret_text& token, std::chrono::milliseconds patience);

  // How far the provider's clock was before this machine's at the latest answer.
  std::chrono::seconds clock_error() const { return m_clockError; }

 private:
  struct answer;

  answer send(const std::string& url, const form_fields& fields,
              std::chrono::milliseconds patience);
  token_grant grant_of(const answer& given) const;
  [[noreturn]] void refuse(const answer& given, const std::string& what) const;
  [[noreturn]] void refuse_nonsense(const char* endpoint, const std::string& what) const;

  const token_provider& m_provider;
  const std::string m_host;
  const std::string m_caFile;
  std::optional<secret_text> m_clientSecret;
  std::chrono::seconds m_clockError{0};
};

}  // namespace tavmail

#endif
