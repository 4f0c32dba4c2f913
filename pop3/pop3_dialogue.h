// pop3_dialogue.h - command lines out, reply lines in.

#ifndef POP3_DIALOGUE_H
#define POP3_DIALOGUE_H

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_pop3_settings.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// Room for a reply line, and greatest length of a command line.
constexpr long kPop3BufferSize = 1024;

// The transport's code in the library's range.
inline TAV_EML_RESULT transport_result(TAV_EML_RESULT result) {
  return static_cast<TAV_EML_RESULT>((static_cast<unsigned int>(result) & 0xFFFFU) | 0x51070000U);
}

// The settings' time-out in milliseconds.
long timeout_ms(const tav_eml_pop3_settings& settings);

// A connection as its operations are handed it.
struct pop3_connection {
  const tav_eml_pop3_settings* settings;
  int& sock;
  TAV_EML_TLS_INFO& tls;

  long timeout() const { return timeout_ms(*settings); }
};

// A zeroed buffer of kPop3BufferSize bytes for a reply line. False, after a log line, when memory
// runs out.
bool make_reply_buffer(const char* operation, utl_buffer& reply);

// As tav_eml_pop3_command::ReadResponse, but what does not fit stays on the connection: behind a
// status line that ended in a lone LF it is message data.
TAV_EML_RESULT read_status_line(int& sock, char* buffer, long& length, long timeout,
                                TAV_EML_TLS_INFO& tls);

// As tav_eml_pop3_command::get_uniq_id. `is_answered`: a reply line was read, whatever it says. The
// end of the connection has the same code as a refusal, and only a refusal tells that the server
// has no unique ids.
TAV_EML_RESULT ask_uniq_id(pop3_connection connection, int number, UtlString& uid,
                           bool& is_answered);

// True when the reply says yes.
bool is_positive(const utl_buffer& reply);

}  // namespace quorvelmida

#endif
