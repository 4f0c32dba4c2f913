// starttls.h - the STARTTLS upgrade (RFC 3207).

#ifndef STARTTLS_H
#define STARTTLS_H

#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "transport/connection.h"

namespace quorvelmida {

// As tav_eml_smtp_command::NegotiateStartTLS. A socket that it closed is 0 afterwards, so that
// it is not closed again.
TAV_EML_RESULT negotiate_starttls(connection& link);

// As tav_eml_smtp_command::tav_eml_smtp_start_tls.
TAV_EML_RESULT upgrade_to_tls(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session);

}  // namespace quorvelmida

#endif
