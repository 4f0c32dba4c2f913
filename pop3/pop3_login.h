// pop3_login.h - opening a session: connect, TLS, greeting, login.

#ifndef POP3_LOGIN_H
#define POP3_LOGIN_H

#include "pop3_dialogue.h"
#include "utl_string.h"

namespace quorvelmida {

// As connect_start and CreateAPOPHash of tav_eml_pop3_command.
TAV_EML_RESULT log_in_to_pop3(const tav_eml_pop3_settings* settings, int& sock,
                              TAV_EML_TLS_INFO& tls);
TAV_EML_RESULT make_apop_digest(const UtlString& greeting, const UtlString& password, char* digest);

}  // namespace quorvelmida

#endif
