// bearer_token.h - the login with an OAuth 2.0 access token: OAUTHBEARER (RFC 7628) and XOAUTH2.

#ifndef BEARER_TOKEN_H
#define BEARER_TOKEN_H

#include <cstdint>
#include <string_view>

#include "common/secret.h"
#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// A token that the server refuses may have run out; a second one has not.
constexpr int kMaxTokens = 2;

struct bearer_method {
  const char* name;     // as servers announce it
  const char* command;  // the command line that starts it
  const char* command_with_message;
  // What answers the error text of a refused login, so that the refusal itself follows.
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

// An access token from the device, wiped on destruction.
class bearer_token {
 public:
  // Asks the device. `was_refused`: the server has refused the last one. TAV_EML_OK with and
  // without a token. Throws what the allocator throws.
  TAV_EML_RESULT ask(const bearer_login& login, bool was_refused, long timeout);

  bool is_given() const { return m_uLength > 0; }

  // The message that logs in. False if memory runs out.
  bool make_message(const bearer_login& login, const bearer_method& method,
                    secret_buffer& message) const;

 private:
  std::string_view text() const { return {m_cText.data(), m_uLength}; }

  secret_buffer m_cText;
  size_t m_uLength = 0;
};

// "before", the base64 text of `secret` and CR LF. False if base64 fails or memory runs out.
bool make_secret_line(const char* before, std::string_view secret, secret_buffer& line);

// The length of that line.
int64_t secret_line_length(const char* before, std::string_view secret);

}  // namespace quorvelmida

#endif
