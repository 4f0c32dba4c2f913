// bearer_token.h - the login with an OAuth 2.0 access token: OAUTHBEARER (RFC 7628) and XOAUTH2.

#ifndef BEARER_TOKEN_H
#define BEARER_TOKEN_H

#include <cstdint>
#include <string_view>

#include "common/secret.h"
#include "quorvelmida/tav_eml_result.h"
#include "transport/connection.h"

namespace quorvelmida {

struct bearer_method {
  const char* name;     // as servers announce it
  const char* command;  // AUTH and the name
  // What logs in: "%u" is the user, "%e" the user with escapes, "%h" the server, "%p" the port and
  // "%t" the token.
  const char* message;
  // A server first says in a challenge why it refuses a token. This answers the challenge, so that
  // the refusal itself follows.
  const char* answer_to_error;
};

// The method that a server's list of words announces; null for neither.
const bearer_method* find_bearer_method(std::string_view announced);

struct bearer_login {
  int32_t service;  // as in tav_bearer.h
  const char* server;
  int32_t port;
  const char* user;
};

// In what SMTP and POP3 differ.
struct bearer_rules {
  // Another token may be granted after `refused`, but not after `failed`.
  enum class reply { granted, goes_on, refused, failed };

  int64_t longest_command;  // with its CR LF
  // Reads a reply to AUTH. A failure is logged and leaves `what` as it is.
  TAV_EML_RESULT (*read)(connection& link, reply& what);
};

// What is known of a login's tokens from one connection to the next. A refused token may have
// expired, so one more is tried on another connection.
enum class token_state { none_refused, one_refused, given_up };

// The state after a verdict other than granted.
token_state after_refusal(token_state before, bearer_rules::reply verdict);

// An access token from the device, wiped on destruction.
class bearer_token {
 public:
  // Asks the device, and says whether the server has refused the token before. TAV_EML_OK with and
  // without a token. Throws what the allocator throws.
  TAV_EML_RESULT ask(const bearer_login& login, token_state state, long timeout);

  bool is_given() const { return m_uLength > 0; }

  // Logs in with it. `verdict` is the server's, and not goes_on, when the result is TAV_EML_OK; a
  // failure of the exchange is logged. Throws what the allocator throws.
  TAV_EML_RESULT log_in(const bearer_login& login, const bearer_method& method,
                        const bearer_rules& rules, connection& link,
                        bearer_rules::reply& verdict) const;

 private:
  bool make_message(const bearer_login& login, const bearer_method& method,
                    secret_buffer& message) const;

  secret_buffer m_cText;
  size_t m_uLength = 0;
};

}  // namespace quorvelmida

#endif
