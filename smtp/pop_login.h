// pop_login.h - the POP3 login that some servers want before SMTP.

#ifndef POP_LOGIN_H
#define POP_LOGIN_H

#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_settings.h"

namespace quorvelmida {

// As tav_eml_smtp_command::tav_eml_smtp_pop_auth.
TAV_EML_RESULT log_in_over_pop3(const tav_eml_smtp_settings* settings,
                                const ntssmtp_fileptr* session);

// Gives the mail server time to learn of the login.
void wait_after_pop_login(const tav_eml_smtp_settings& settings);

}  // namespace quorvelmida

#endif
