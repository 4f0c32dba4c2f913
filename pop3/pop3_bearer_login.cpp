#include "pop3_bearer_login.h"

#include "common/text.h"
#include "login/bearer_token.h"
#include "pop3_log.h"
#include "tav_bearer.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "connect_start";
constexpr std::string_view kSuccess = "+OK";

TAV_EML_RESULT refused(TAV_EML_RESULT result) {
  return pop3_failure(kName, " AUTH error.", result);
}

TAV_EML_RESULT send(pop3_connection& link, std::string_view line) {
  const TAV_EML_RESULT result = link.send_all(line.data(), static_cast<long>(line.size()));
  return result == TAV_EML_OK ? result : pop3_called_failure(kName, "WriteUntil", result);
}

// Sends a line with the token from a buffer that is wiped.
TAV_EML_RESULT send_secret(pop3_connection& link, const char* before, std::string_view secret) {
  secret_buffer line;
  if (!make_secret_line(before, secret, line)) return refused(TAV_EML_ERR_NO_MEMORY);
  return send(link, line.view());
}

TAV_EML_RESULT read(pop3_connection& link, utl_buffer& reply) {
  const TAV_EML_RESULT result = link.read_reply(reply);
  return result == TAV_EML_OK ? result : pop3_called_failure(kName, "ReadResponse", result);
}

bool goes_on(const utl_buffer& reply) {
  return begins_with(reply.view(), "+") && !begins_with(reply.view(), kSuccess);
}

// Reads what the server announces, line by line: it need not fit a buffer.
TAV_EML_RESULT ask_for_method(pop3_connection& link, utl_buffer& reply,
                              const bearer_method*& method) {
  constexpr int kMaxLines = 1000;
  constexpr std::string_view kSasl = "SASL ";
  TAV_EML_RESULT result = send(link, "CAPA\r\n");
  if (result == TAV_EML_OK) result = read(link, reply);
  if (result != TAV_EML_OK || !begins_with(reply.view(), kSuccess)) return result;
  for (int line = 0; line < kMaxLines; ++line) {
    result = read(link, reply);
    if (result != TAV_EML_OK || reply.view() == ".\r\n") return result;
    if (begins_with_word(reply.view(), kSasl)) {
      method = find_bearer_method(reply.view().substr(kSasl.size()));
    }
  }
  return pop3_failure(kName, " CAPA without end.", TAV_EML_ERR_REPLY);
}

// Sends the message in the AUTH line, or after an empty challenge if the line would be too long.
TAV_EML_RESULT send_message(pop3_connection& link, const bearer_method& method,
                            std::string_view message, utl_buffer& reply) {
  constexpr int64_t kLongestCommand = 255;  // RFC 2449 4
  if (secret_line_length(method.command_with_message, message) <= kLongestCommand) {
    return send_secret(link, method.command_with_message, message);
  }
  TAV_EML_RESULT result = send(link, method.command);
  if (result == TAV_EML_OK) result = read(link, reply);
  if (result != TAV_EML_OK) return result;
  return goes_on(reply) ? send_secret(link, "", message) : refused(TAV_EML_ERR_AUTH);
}

TAV_EML_RESULT exchange(pop3_connection& link, const bearer_method& method,
                        std::string_view message, utl_buffer& reply) {
  TAV_EML_RESULT result = send_message(link, method, message, reply);
  if (result == TAV_EML_OK) result = read(link, reply);
  if (result != TAV_EML_OK || begins_with(reply.view(), kSuccess)) return result;
  if (goes_on(reply)) {
    // What went wrong, in JSON. The refusal comes after an answer.
    result = send_secret(link, "", method.answer_to_error);
    if (result == TAV_EML_OK) result = read(link, reply);
    if (result != TAV_EML_OK) return result;
  }
  return refused(TAV_EML_ERR_AUTH);
}

// There is no token, or no method for it.
TAV_EML_RESULT go_without(const tav_eml_pop3_settings& account, bool has_token,
                          int& refused_tokens) {
  if (refused_tokens > 0) {
    // A password is not for a server that has just refused a token.
    refused_tokens = kMaxTokens;
    return pop3_failure(kName, " no new token.", TAV_EML_ERR_AUTH);
  }
  if (!has_token || !account.m_strPassword.IsEmpty()) return TAV_EML_OK;
  return pop3_failure(kName, " no method for a token.", TAV_EML_ERR_AUTH_METHOD);
}

}  // namespace

TAV_EML_RESULT log_in_with_token(pop3_connection& link, int& refused_tokens, bool& is_done) {
  is_done = false;
  const tav_eml_pop3_settings& account = *link.settings;
  const bearer_login login = {TAV_BEARER_POP3, text_of(account.m_strServer), account.m_nPort,
                              text_of(account.m_strUserID)};
  bearer_token token;
  TAV_EML_RESULT result =
      token.ask(login, refused_tokens > 0, to_milliseconds(account.m_nTimeout));
  if (result != TAV_EML_OK) return pop3_called_failure(kName, "tav_bearer_get", result);
  utl_buffer reply;
  const bearer_method* method = nullptr;
  if (token.is_given()) {
    if (!make_reply_buffer(kName, reply)) return TAV_EML_ERR_NO_MEMORY;
    result = ask_for_method(link, reply, method);
    if (result != TAV_EML_OK) return result;
  }
  if (method == nullptr) return go_without(account, token.is_given(), refused_tokens);
  secret_buffer message;
  if (!token.make_message(login, *method, message)) return refused(TAV_EML_ERR_NO_MEMORY);
  result = exchange(link, *method, message.view(), reply);
  if (result == TAV_EML_ERR_AUTH) ++refused_tokens;
  is_done = result == TAV_EML_OK;
  return result;
}

}  // namespace quorvelmida
