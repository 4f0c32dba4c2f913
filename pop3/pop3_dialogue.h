// pop3_dialogue.h - command lines out, reply lines in.

#ifndef POP3_DIALOGUE_H
#define POP3_DIALOGUE_H

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_pop3_settings.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"
#include "transport/connection.h"

namespace quorvelmida {

extern const protocol_rules kPop3Rules;

// Sends have no time-out of the settings: 0 is the platform's own limit.
constexpr long kPop3SendTimeout = 0;

// Room for a reply line, and greatest length of a command line.
constexpr long kPop3BufferSize = 1024;

// What becomes of a reply line that does not fit. Message data may come after a status line that
// ends in a lone LF: it must stay on the connection.
enum class line_rest { dropped, kept };

// A connection and the account that it is used with.
class pop3_connection : public connection {
 public:
  pop3_connection(const tav_eml_pop3_settings* account, int& sock, TAV_EML_TLS_INFO& tls)
      : connection(sock, tls, kPop3Rules,
                   account != nullptr ? to_milliseconds(account->m_nTimeout) : 0, kPop3SendTimeout),
        settings(account) {}
  pop3_connection(int& sock, TAV_EML_TLS_INFO& tls, long timeout)
      : connection(sock, tls, kPop3Rules, timeout, kPop3SendTimeout), settings(nullptr) {}

  // Reads a line into the cleared buffer. `length` is the room and becomes the bytes read.
  TAV_EML_RESULT read_reply(char* buffer, long& length, line_rest rest);
  // Reads a line into a reply buffer.
  TAV_EML_RESULT read_reply(utl_buffer& reply, line_rest rest = line_rest::dropped);

  const tav_eml_pop3_settings* const settings;  // may be null
};

// A buffer of kPop3BufferSize bytes for a reply line. False, after a log line, when memory runs
// out.
bool make_reply_buffer(const char* operation, utl_buffer& reply);

// True when the reply says yes.
bool is_positive(const utl_buffer& reply);

}  // namespace quorvelmida

#endif
