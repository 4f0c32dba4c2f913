// envelope.h - MAIL FROM and RCPT TO (RFC 5321 4.1.1.2, 4.1.1.3).

#ifndef ENVELOPE_H
#define ENVELOPE_H

#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "smtp_dialogue.h"

namespace quorvelmida {

// As tav_eml_smtp_command::tav_eml_smtp_send_envelope.
TAV_EML_RESULT send_envelope(const tav_eml_smtp_send_mail& mail, smtp_dialogue& dialogue);

}  // namespace quorvelmida

#endif
