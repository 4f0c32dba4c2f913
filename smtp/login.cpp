#include "login.h"

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "greeting.h"
#include "login_bearer.h"
#include "smtp_log.h"
#include "smtp_session.h"
#include "tav_bearer.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_auth";

struct login_method {
  const char* announced;  // in the reply to EHLO
  int32_t smtp_ehlo_option::*flag;
  const char* operation;  // in the log
  login_function log_in;
};

// In the order in which they are tried.
constexpr login_method kMethods[] = {
    {"CRAM-MD5", &smtp_ehlo_option::cram_md5, "tav_eml_smtp_auth_cram_md5", &log_in_with_cram_md5},
    {"DIGEST-MD5", &smtp_ehlo_option::digest_md5, "tav_eml_smtp_auth_digest_md5",
     &log_in_with_digest_md5},
    {"PLAIN", &smtp_ehlo_option::plain, "tav_eml_smtp_auth_plain", &log_in_with_plain},
    {"LOGIN", &smtp_ehlo_option::login, "tav_eml_smtp_auth_login", &log_in_with_login},
};

// The first method that is set; null when there is none.
const login_method* first_method(const smtp_ehlo_option& option) {
  for (const login_method& method : kMethods) {
    if (option.*method.flag != 0) return &method;
  }
  return nullptr;
}

TAV_EML_RESULT method_failure(const char* operation, TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: %s return 0x%x[Error]\n", kName, operation,
                    log_code(result));
  return result;
}

// A method that fails is not tried again.
TAV_EML_RESULT run(const login_method& method, const tav_eml_smtp_settings& settings,
                   ntssmtp_fileptr& session, smtp_ehlo_option& untried) {
  const login_account account = {settings.user_id, settings.password, text_of(settings.server)};
  const TAV_EML_RESULT result = guarded(method.operation, [&] {
    smtp_dialogue dialogue(session, settings);
    return method.log_in(account, dialogue);
  });
  if (result == TAV_EML_OK) return result;
  untried.*method.flag = 0;
  return method_failure(method.operation, result);
}

TAV_EML_RESULT log_in_with_password(const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session,
                                    const smtp_ehlo_option& announced, smtp_ehlo_option& untried) {
  if (first_method(untried) == nullptr) untried = announced;
  const login_method* method = first_method(untried);
  if (method == nullptr) {
    return command_failure(kName, ": Unknown AuthKind", TAV_EML_ERR_AUTH_METHOD);
  }
  return run(*method, settings, session, untried);
}

TAV_EML_RESULT choose_and_run(const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session,
                              login_progress& progress) {
  smtp_dialogue dialogue(session, settings);
  const bearer_login login = {TAV_BEARER_SMTP, text_of(settings.server), settings.port,
                              text_of(settings.user_id)};
  bearer_token token;
  TAV_EML_RESULT result = TAV_EML_OK;
  if (dialogue.is_under_tls()) {
    result = token.ask(login, progress.tokens, to_milliseconds(settings.timeout));
    if (result != TAV_EML_OK) return called_failure(kName, "tav_bearer_get", result);
  }
  // Always the reply to this EHLO: what was announced before TLS does not count.
  smtp_ehlo_option announced = {};
  const bearer_method* bearer = nullptr;
  result = send_ehlo(&settings, &session, announced, bearer);
  if (result != TAV_EML_OK) return called_failure(kName, "SendEhloCommand", result);
  if (token.is_given() && bearer != nullptr) {
    result = log_in_with_bearer(login, *bearer, token, dialogue, progress.tokens);
    return result == TAV_EML_OK ? result : method_failure("tav_eml_smtp_auth_bearer", result);
  }
  if (progress.tokens != token_state::none_refused) {
    // A password is not for a server that has just refused a token.
    progress.tokens = token_state::given_up;
    return command_failure(kName, ": no new token", TAV_EML_ERR_AUTH);
  }
  if (token.is_given() && settings.password.IsEmpty()) {
    return command_failure(kName, ": no method for a token", TAV_EML_ERR_AUTH_METHOD);
  }
  return log_in_with_password(settings, session, announced, progress.untried);
}

}  // namespace

void take_login_methods(const std::string& list, smtp_ehlo_option& option) {
  for (const login_method& method : kMethods) {
    if (list.find(method.announced) != std::string::npos) option.*method.flag = 1;
  }
}

bool has_another_login(const login_progress& progress) {
  return progress.tokens == token_state::none_refused ? first_method(progress.untried) != nullptr
                                                      : progress.tokens == token_state::one_refused;
}

TAV_EML_RESULT log_in(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                      login_progress& progress) {
  if (!is_usable(settings, session, kName)) return TAV_EML_ERR_UNKNOWN;
  if (!wants_login(*settings)) {
    return command_failure(kName, " : Invalid auth_kind", TAV_EML_ERR_UNKNOWN);
  }
  if (settings->user_id.IsEmpty()) return command_failure(kName, ": UsrID None", TAV_EML_ERR_AUTH);

  return guarded(kName, [&] { return choose_and_run(*settings, *session, progress); });
}

}  // namespace quorvelmida
