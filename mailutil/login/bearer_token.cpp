#include "login/bearer_token.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "codec/base64.h"
#include "common/log.h"
#include "common/text.h"
#include "tav_bearer.h"

// A port without tokens lacks it.
#pragma weak tav_bearer_get

namespace quorvelmida {

namespace {

using reply = bearer_rules::reply;

// In the order of preference.
constexpr bearer_method kMethods[] = {
    {"OAUTHBEARER", "AUTH OAUTHBEARER", "n,a=%e,\1host=%h\1port=%p\1auth=Bearer %t\1\1", "\1"},
    {"XOAUTH2", "AUTH XOAUTH2", "user=%u\1auth=Bearer %t\1\1", ""},
};

bool has_word(std::string_view text, std::string_view word) {
  constexpr const char* kBlanks = " \t\r\n";
  while (!text.empty()) {
    const size_t end = std::min(text.find_first_of(kBlanks), text.size());
    if (end == word.size() && begins_with_word(text, word)) return true;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return false;
}

char* put(std::string_view text, char* out) { return std::copy(text.begin(), text.end(), out); }

// The characters that would end the name are escaped (RFC 5801 4).
char* put_escaped(const char* name, char* out) {
  for (; *name != '\0'; ++name) {
    if (*name == ',' || *name == '=') {
      out = put(*name == ',' ? "=2C" : "=3D", out);
    } else {
      *out++ = *name;
    }
  }
  return out;
}

// Sends a line with the command, a blank and the base64 text of `secret`, from buffers that are
// wiped. Without one of the two there is no blank.
TAV_EML_RESULT send_line(connection& link, std::string_view command, std::string_view secret) {
  secret_buffer encoded, line;
  if (!to_base64(secret.data(), static_cast<long>(secret.size()), 0, encoded) ||
      !line.allocate_uncleared(static_cast<int64_t>(command.size()) + encoded.length() + 3)) {
    return TAV_EML_ERR_NO_MEMORY;
  }
  char* out = put(command, line.data());
  if (!command.empty() && !secret.empty()) *out++ = ' ';
  out = put("\r\n", put(encoded.view(), out));
  line.set_length(static_cast<long>(out - line.data()));
  return link.send_all(line.data(), line.length());
}

// The message goes into the line of the command, or after an empty challenge if that would be too
// long (RFC 4954 4, RFC 5034 4).
TAV_EML_RESULT send_message(connection& link, const bearer_method& method,
                            const bearer_rules& rules, std::string_view message, reply& what) {
  const int64_t length = static_cast<int64_t>(std::strlen(method.command)) + 3 +
                         base64_text_length(static_cast<int64_t>(message.size()), 0);
  TAV_EML_RESULT result = TAV_EML_OK;
  if (length <= rules.longest_command) {
    result = send_line(link, method.command, message);
  } else {
    result = send_line(link, method.command, "");
    if (result == TAV_EML_OK) result = rules.read(link, what);
    if (result != TAV_EML_OK) return result;
    if (what != reply::goes_on) {
      what = reply::failed;  // whatever it says: no token was sent yet
      return result;
    }
    result = send_line(link, "", message);
  }
  return result == TAV_EML_OK ? rules.read(link, what) : result;
}

}  // namespace

const bearer_method* find_bearer_method(std::string_view announced) {
  for (const bearer_method& method : kMethods) {
    if (has_word(announced, method.name)) return &method;
  }
  return nullptr;
}

token_state after_refusal(token_state before, reply verdict) {
  return before == token_state::none_refused && verdict == reply::refused ? token_state::one_refused
                                                                          : token_state::given_up;
}

TAV_EML_RESULT bearer_token::ask(const bearer_login& login, token_state state, long timeout) {
  if (&tav_bearer_get == nullptr || !has_no_control(login.user)) return TAV_EML_OK;
  if (!m_cText.allocate_uncleared(TAV_BEARER_MAX)) return TAV_EML_ERR_NO_MEMORY;
  m_cText.set_length(TAV_BEARER_MAX);  // all of it is wiped, whatever the device says
  const tav_bearer_request request = {login.service, login.server, login.user,
                                      state == token_state::one_refused ? 1 : 0,
                                      static_cast<int32_t>(timeout)};
  const int32_t length = tav_bearer_get(&request, m_cText.data(), TAV_BEARER_MAX);
  if (length <= 0) return TAV_EML_OK;
  const char* const text = m_cText.data();
  if (length <= TAV_BEARER_MAX &&
      std::all_of(text, text + length, [](char ch) { return ch > ' ' && ch <= '~'; })) {
    m_uLength = static_cast<size_t>(length);
  } else {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]unusable token\n", "tav_bearer_get");
  }
  return TAV_EML_OK;
}

bool bearer_token::make_message(const bearer_login& login, const bearer_method& method,
                                secret_buffer& message) const {
  constexpr size_t kEscape = 3, kPort = 8;
  const size_t most = std::strlen(method.message) + std::strlen(login.user) * kEscape +
                      std::strlen(login.server) + kPort + m_uLength;
  if (!message.allocate_uncleared(static_cast<int64_t>(most))) return false;
  char* out = message.data();
  for (const char* at = method.message; *at != '\0'; ++at) {
    if (*at != '%') {
      *out++ = *at;
    } else if (*++at == 'e') {
      out = put_escaped(login.user, out);
    } else if (*at == 'u') {
      out = put(login.user, out);
    } else if (*at == 'h') {
      out = put(login.server, out);
    } else if (*at == 'p') {
      out += std::snprintf(out, kPort, "%u", static_cast<unsigned int>(login.port) & 0xFFFFU);
    } else {
      out = put({m_cText.data(), m_uLength}, out);
    }
  }
  message.set_length(static_cast<long>(out - message.data()));
  return true;
}

TAV_EML_RESULT bearer_token::log_in(const bearer_login& login, const bearer_method& method,
                                    const bearer_rules& rules, connection& link,
                                    reply& verdict) const {
  secret_buffer message;
  TAV_EML_RESULT result = make_message(login, method, message)
                              ? send_message(link, method, rules, message.view(), verdict)
                              : TAV_EML_ERR_NO_MEMORY;
  if (result != TAV_EML_OK || verdict != reply::goes_on) return result;
  // The challenge says in JSON what went wrong. The refusal comes after an answer to it.
  result = send_line(link, "", method.answer_to_error);
  if (result == TAV_EML_OK) result = rules.read(link, verdict);
  if (verdict != reply::failed) verdict = reply::refused;
  return result;
}

}  // namespace quorvelmida
