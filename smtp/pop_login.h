// pop_login.h - the POP3 login that some servers want before SMTP.

#ifndef POP_LOGIN_H
#define POP_LOGIN_H

#include "quorvelmida/tav_eml_smtp_command.h"

namespace quorvelmida {

// Logs in and waits as the settings ask for. TAV_EML_OK or the code of the login.
TAV_EML_RESULT log_in_before_smtp(tav_eml_smtp_command& command,
                                  const tav_eml_smtp_settings& settings, ntssmtp_fileptr* session);

}  // namespace quorvelmida

#endif
