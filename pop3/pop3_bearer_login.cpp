#include "pop3_bearer_login.h"

#include "common/text.h"
#include "pop3_log.h"
#include "tav_bearer.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "connect_start";

TAV_EML_RESULT read_line(pop3_connection& link, utl_buffer& line) {
  return line.data() != nullptr || make_reply_buffer(kName, line) ? link.read_reply(line)
                                                                  : TAV_EML_ERR_NO_MEMORY;
}

bool says_yes(const utl_buffer& line) { return begins_with(line.view(), "+OK"); }

// The text of a challenge could hold "+OK": only the start of the line counts.
bearer_rules::reply judge(std::string_view line) {
  if (begins_with(line, "+")) {
    return begins_with(line, "+OK") ? bearer_rules::reply::granted : bearer_rules::reply::goes_on;
  }
  // Another reason than the token (RFC 2449 8.1, RFC 3206 4).
  for (const char* reason : {"-ERR [SYS/", "-ERR [IN-USE]", "-ERR [LOGIN-DELAY]"}) {
    if (begins_with_word(line, reason)) return bearer_rules::reply::failed;
  }
  return bearer_rules::reply::refused;
}

TAV_EML_RESULT read(connection& link, bearer_rules::reply& what) {
  utl_buffer line;
  const TAV_EML_RESULT result = read_line(static_cast<pop3_connection&>(link), line);
  if (result == TAV_EML_OK) what = judge(line.view());
  return result;
}

constexpr bearer_rules kRules = {255, &read};  // RFC 2449 4

// Reads what the server announces, line by line: it need not fit a buffer.
TAV_EML_RESULT ask_for_method(pop3_connection& link, const bearer_method*& method) {
  constexpr int kMaxLines = 1000;
  constexpr std::string_view kCapa = "CAPA\r\n", kSasl = "SASL ";
  utl_buffer line;
  TAV_EML_RESULT result = link.send_all(kCapa.data(), static_cast<long>(kCapa.size()));
  if (result == TAV_EML_OK) result = read_line(link, line);
  if (result != TAV_EML_OK || !says_yes(line)) return result;
  for (int count = 0; count < kMaxLines; ++count) {
    result = read_line(link, line);
    if (result != TAV_EML_OK || line.view() == ".\r\n") return result;
    if (method == nullptr && begins_with_word(line.view(), kSasl)) {
      method = find_bearer_method(line.view().substr(kSasl.size()));
    }
  }
  return pop3_failure(kName, " CAPA without end.", TAV_EML_ERR_REPLY);
}

// There is no token, or no method for it.
TAV_EML_RESULT go_without(const tav_eml_pop3_settings& account, bool has_token,
                          token_state& tokens) {
  if (tokens != token_state::none_refused) {
    // A password is not for a server that has just refused a token.
    tokens = token_state::given_up;
    return pop3_failure(kName, " no new token.", TAV_EML_ERR_AUTH);
  }
  if (!has_token || !account.m_strPassword.IsEmpty()) return TAV_EML_OK;
  return pop3_failure(kName, " no method for a token.", TAV_EML_ERR_AUTH_METHOD);
}

}  // namespace

TAV_EML_RESULT log_in_with_token(pop3_connection& link, token_state& tokens, bool& is_done) {
  is_done = false;
  const tav_eml_pop3_settings& account = *link.settings;
  const bearer_login login = {TAV_BEARER_POP3, text_of(account.m_strServer), account.m_nPort,
                              text_of(account.m_strUserID)};
  bearer_token token;
  TAV_EML_RESULT result = token.ask(login, tokens, to_milliseconds(account.m_nTimeout));
  if (result != TAV_EML_OK) return pop3_called_failure(kName, "tav_bearer_get", result);
  const bearer_method* method = nullptr;
  if (token.is_given()) result = ask_for_method(link, method);
  if (result != TAV_EML_OK) return pop3_called_failure(kName, "CAPA", result);
  if (method == nullptr) return go_without(account, token.is_given(), tokens);

  bearer_rules::reply verdict = bearer_rules::reply::refused;
  result = token.log_in(login, *method, kRules, link, verdict);
  if (result != TAV_EML_OK) return pop3_called_failure(kName, "AUTH", result);
  is_done = verdict == bearer_rules::reply::granted;
  if (is_done) return result;
  tokens = after_refusal(tokens, verdict);
  return pop3_failure(kName, " AUTH error.", TAV_EML_ERR_AUTH);
}

}  // namespace quorvelmida
