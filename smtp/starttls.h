// starttls.h - the upgrade with the socket by reference.

#ifndef STARTTLS_H
#define STARTTLS_H

#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// As tav_eml_smtp_command::NegotiateStartTLS; a socket that it closed is 0 afterwards, so that
// nobody closes it again.
TAV_EML_RESULT negotiate_starttls(int& sock, long timeout, TAV_EML_TLS_INFO& tls);

}  // namespace quorvelmida

#endif
