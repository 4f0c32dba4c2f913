// outgoing_header.h - the header of an outgoing message (RFC 5322, RFC 2045, RFC 2046).

#ifndef OUTGOING_HEADER_H
#define OUTGOING_HEADER_H

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "quorvelmida/tav_eml_smtp_settings.h"

namespace quorvelmida {

// As tav_eml_smtp_send_mail::create_message_id, but throws std::bad_alloc.
bool make_message_id(const tav_eml_mlutl_mail_address& from, UtlString& id);

// The name of a field whose value would break out of its header line or is too long for it, or of a
// boundary that a multipart message cannot use; null when everything can be composed safely.
const char* unsafe_header_field(const tav_eml_smtp_send_mail& mail);

// As make_header, MakeHeaderAddress and make_header_bracket of tav_eml_smtp_send_mail. The last two
// let exceptions through, as make_message_id does: they end the header as a whole.
bool compose_header(tav_eml_smtp_send_mail& mail, char*& buffer, long& length);
bool append_addresses(const tav_eml_mlutl_mail_address& list, const char* label, utl_buffer& header,
                      long& count);
bool append_ids(const UtlString& value, const char* label, utl_buffer& header);

}  // namespace quorvelmida

#endif
