// login.h - SMTP AUTH (RFC 4954): the methods and the choice among them.

#ifndef LOGIN_H
#define LOGIN_H

#include <string>

#include "login/bearer_token.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "smtp_dialogue.h"

namespace quorvelmida {

struct login_account {
  const UtlString& user;
  const UtlString& password;
  const char* server;  // its name, for DIGEST-MD5
};

// Logs in by one method. Memory may run out by std::bad_alloc.
using login_function = TAV_EML_RESULT (*)(const login_account& account, smtp_dialogue& dialogue);
TAV_EML_RESULT log_in_with_cram_md5(const login_account& account, smtp_dialogue& dialogue);
TAV_EML_RESULT log_in_with_digest_md5(const login_account& account, smtp_dialogue& dialogue);
TAV_EML_RESULT log_in_with_plain(const login_account& account, smtp_dialogue& dialogue);
TAV_EML_RESULT log_in_with_login(const login_account& account, smtp_dialogue& dialogue);

// Sets the flags of the methods that the server's list names.
void take_login_methods(const std::string& list, smtp_ehlo_option& option);

// What is kept from one connection to the next until a login succeeds.
struct login_progress {
  smtp_ehlo_option untried = {};
  token_state tokens = token_state::none_refused;
};

// True if a login on another connection can succeed after a refused one.
bool has_another_login(const login_progress& progress);

// As tav_eml_smtp_command::tav_eml_smtp_auth. Under TLS a token of the device comes before the
// password.
TAV_EML_RESULT log_in(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                      login_progress& progress);

}  // namespace quorvelmida

#endif
