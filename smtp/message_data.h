// message_data.h - DATA, the message's bytes and the end-of-data line (RFC 5321 4.1.1.4).

#ifndef MESSAGE_DATA_H
#define MESSAGE_DATA_H

#include "smtp_dialogue.h"

namespace quorvelmida {

// As the operations tav_eml_smtp_send_data_open, tav_eml_smtp_send_data and
// tav_eml_smtp_send_data_close of tav_eml_smtp_command, for data that is open.
TAV_EML_RESULT open_data(smtp_dialogue& dialogue);
TAV_EML_RESULT send_data(smtp_dialogue& dialogue, const char* data, long length);
TAV_EML_RESULT close_data(smtp_dialogue& dialogue);

}  // namespace quorvelmida

#endif
