// SMTP AUTH with an OAuth 2.0 access token: OAUTHBEARER (RFC 7628) and XOAUTH2.

#include "login_bearer.h"

#include "login_exchange.h"

namespace quorvelmida {

namespace {

constexpr exchange_texts kTexts = {"tav_eml_smtp_auth_bearer", nullptr, ": Recv NG",
                                   ": Recv resp NG"};

TAV_EML_RESULT read(connection& link, bearer_rules::reply& what) {
  smtp_dialogue& dialogue = static_cast<smtp_dialogue&>(link);
  const TAV_EML_RESULT result = dialogue.read_reply(kTexts);
  if (result != TAV_EML_OK) return result;
  const char first = dialogue.reply()[0];
  what = first == kReplySuccess    ? bearer_rules::reply::granted
         : first == kReplyContinue ? bearer_rules::reply::goes_on
                                   : bearer_rules::reply::refused;
  return result;
}

constexpr bearer_rules kRules = {512, &read};  // RFC 5321 4.5.3.1.4

}  // namespace

TAV_EML_RESULT log_in_with_bearer(const bearer_login& login, const bearer_method& method,
                                  const bearer_token& token, smtp_dialogue& dialogue,
                                  token_state& tokens) {
  bearer_rules::reply verdict = bearer_rules::reply::refused;
  TAV_EML_RESULT result = token.log_in(login, method, kRules, dialogue, verdict);
  if (result != TAV_EML_OK || verdict == bearer_rules::reply::granted) return result;
  result = refuse_login(dialogue, kTexts);
  if (result == TAV_EML_ERR_AUTH) tokens = after_refusal(tokens, verdict);
  return result;
}

}  // namespace quorvelmida
