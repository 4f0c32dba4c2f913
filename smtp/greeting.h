// greeting.h - HELO, EHLO and what the server announces (RFC 5321 4.1.1.1).

#ifndef GREETING_H
#define GREETING_H

#include "login/bearer_token.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_settings.h"

namespace quorvelmida {

// As SendHeloCommand, SendEhloCommand and tav_eml_smtp_pnon_auth_ehlo of tav_eml_smtp_command.
TAV_EML_RESULT send_helo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session);
TAV_EML_RESULT send_ehlo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                         smtp_ehlo_option& option);
// The same; `bearer` becomes the announced method for a token, null for none.
TAV_EML_RESULT send_ehlo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                         smtp_ehlo_option& option, const bearer_method*& bearer);
TAV_EML_RESULT send_ehlo_or_helo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session);

}  // namespace quorvelmida

#endif
