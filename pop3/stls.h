// stls.h - the STLS upgrade (RFC 2595).

#ifndef STLS_H
#define STLS_H

#include "pop3_dialogue.h"

namespace quorvelmida {

// As tav_eml_pop3_command::NegotiateStartTLS.
TAV_EML_RESULT negotiate_stls(pop3_connection& link);

}  // namespace quorvelmida

#endif
