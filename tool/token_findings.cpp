#include "token_findings.h"

#include <nlohmann/json.hpp>
#include <sstream>

#include "json_text.h"
#include "provider_tokens.h"
#include "tav_bearer.h"

namespace tavmail {

namespace {

using json = nlohmann::json;

// True when a server that wants a token for `wanted` cannot take one for `scope`.
bool is_for_another(const std::string& wanted, const std::string& scope) {
  std::istringstream words(wanted);
  bool is_any = false;
  for (std::string word; words >> word; is_any = true) {
    if (missing_scope(word, scope).empty()) return false;
  }
  return is_any && !scope.empty();
}

}  // namespace

bool is_token_login(const exchange& entry) {
  return entry.method == "OAUTHBEARER" || entry.method == "XOAUTH2";
}

finding explain_refused_token(const exchange& refused, const endpoint_options& options) {
  if (!refused.has_secret) {
    return {
        EX_NOPERM,
        options.place() + " refused a login with " + refused.method + " before it had the token",
        "ask whoever runs the server"};
  }
  const std::string cause = options.place() + " refused the token of " + options.user;
  const problem* const trouble = token_problem(refused.is_pop3 ? TAV_BEARER_POP3 : TAV_BEARER_SMTP);
  if (trouble != nullptr) {
    return {trouble->exit_code(), cause + ", and there is no other one: " + trouble->cause(),
            trouble->remedy(), false};
  }
  if (!options.tokens()) return {EX_NOPERM, cause, ""};
  const json told = json::parse(refused.challenge, nullptr, false);
  const std::string wanted = text_at(told, "scope");
  if (says(text_at(told, "status"), "scope") || is_for_another(wanted, options.tokens()->scope())) {
    return {EX_NOPERM, cause + ": it is for another scope",
            "get a token for " + (wanted.empty() ? "what the server wants" : wanted) +
                ": the key scope of the account's table \"oauth\", then tavmail authorize"};
  }
  const finding advice = options.tokens()->advise(options.user);
  return {advice.exit_code, cause + (advice.cause.empty() ? "" : "; " + advice.cause),
          advice.remedy};
}

finding without_token_login(const endpoint_options& options, const std::string& offer) {
  return {EX_UNAVAILABLE,
          options.place() + " takes no tokens" + (offer.empty() ? "" : ", only " + offer),
          "give a password, or ask whoever runs the server for OAUTHBEARER or XOAUTH2", false};
}

std::string token_advice(const endpoint_options& options) {
  if (options.tokens()) return {};
  return "log in with a token: --token-command CMD, or a table \"oauth\" in the account and "
         "tavmail "
         "authorize; or ask for an app password";
}

}  // namespace tavmail
