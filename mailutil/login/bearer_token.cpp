#include "login/bearer_token.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "codec/base64.h"
#include "common/log.h"
#include "common/text.h"
#include "tav_bearer.h"

// A port without tokens lacks it.
#pragma weak tav_bearer_get

namespace quorvelmida {

namespace {

// In the order of preference.
constexpr bearer_method kMethods[] = {
    {"OAUTHBEARER", "AUTH OAUTHBEARER\r\n", "AUTH OAUTHBEARER ", "\x01"},
    {"XOAUTH2", "AUTH XOAUTH2\r\n", "AUTH XOAUTH2 ", ""},
};
constexpr const bearer_method& kOauthBearer = kMethods[0];

bool has_word(std::string_view text, std::string_view word) {
  constexpr const char* kBlanks = " \t\r\n";
  while (!text.empty()) {
    const size_t end = std::min(text.find_first_of(kBlanks), text.size());
    if (end == word.size() && begins_with_word(text, word)) return true;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return false;
}

// The name with the characters escaped that end it (RFC 5801 4).
std::string authorization_name(std::string_view user) {
  std::string name;
  for (const char ch : user) {
    if (ch == ',') {
      name += "=2C";
    } else if (ch == '=') {
      name += "=3D";
    } else {
      name += ch;
    }
  }
  return name;
}

bool assign_all(secret_buffer& buffer, std::initializer_list<std::string_view> texts) {
  size_t length = 0;
  for (const std::string_view text : texts) length += text.size();
  if (!buffer.allocate_uncleared(static_cast<int64_t>(length))) return false;
  buffer.set_length(static_cast<long>(length));
  char* out = buffer.data();
  for (const std::string_view text : texts) out = std::copy(text.begin(), text.end(), out);
  *out = '\0';
  return true;
}

}  // namespace

const bearer_method* find_bearer_method(std::string_view announced) {
  for (const bearer_method& method : kMethods) {
    if (has_word(announced, method.name)) return &method;
  }
  return nullptr;
}

TAV_EML_RESULT bearer_token::ask(const bearer_login& login, bool was_refused, long timeout) {
  if (&tav_bearer_get == nullptr || !has_no_control(login.user)) return TAV_EML_OK;
  if (!m_cText.allocate_uncleared(TAV_BEARER_MAX)) return TAV_EML_ERR_NO_MEMORY;
  m_cText.set_length(TAV_BEARER_MAX);  // all of it is wiped, whatever the device says
  const tav_bearer_request request = {login.service, login.server, login.user, was_refused ? 1 : 0,
                                      static_cast<int32_t>(timeout)};
  const int32_t length = tav_bearer_get(&request, m_cText.data(), TAV_BEARER_MAX);
  if (length <= 0) return TAV_EML_OK;
  const std::string_view token(m_cText.data(),
                               static_cast<size_t>(std::min(length, TAV_BEARER_MAX)));
  const bool is_usable =
      length <= TAV_BEARER_MAX &&
      std::all_of(token.begin(), token.end(), [](char ch) { return ch > ' ' && ch <= '~'; });
  if (is_usable) {
    m_uLength = token.size();
  } else {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]unusable token\n", "tav_bearer_get");
  }
  return TAV_EML_OK;
}

bool bearer_token::make_message(const bearer_login& login, const bearer_method& method,
                                secret_buffer& message) const {
  if (&method != &kOauthBearer) {
    return assign_all(message, {"user=", login.user, "\1auth=Bearer ", text(), "\1\1"});
  }
  char port[8];
  std::snprintf(port, sizeof port, "%u", static_cast<unsigned int>(login.port) & 0xFFFFU);
  return assign_all(message, {"n,a=", authorization_name(login.user), ",\1host=", login.server,
                              "\1port=", port, "\1auth=Bearer ", text(), "\1\1"});
}

bool make_secret_line(const char* before, std::string_view secret, secret_buffer& line) {
  secret_buffer encoded;
  return to_base64(secret.data(), static_cast<long>(secret.size()), 0, encoded) &&
         assign_all(line, {before, encoded.view(), "\r\n"});
}

int64_t secret_line_length(const char* before, std::string_view secret) {
  constexpr int64_t kLineEnd = 2;
  return static_cast<int64_t>(std::strlen(before)) +
         base64_text_length(static_cast<int64_t>(secret.size()), 0) + kLineEnd;
}

}  // namespace quorvelmida
