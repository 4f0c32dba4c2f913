// pop3_exchange.h - one command and the line that answers it.

#ifndef POP3_EXCHANGE_H
#define POP3_EXCHANGE_H

#include <string_view>

#include "pop3_dialogue.h"

namespace quorvelmida {

// Which command is sent, and what its log lines call it.
struct pop3_command {
  const char* operation;
  const char* reply_name;  // in the line on a bad reply
  const char* verb;
  const char* tail = nullptr;  // after the message number; null for a command without one
};

// Sends the command and reads the line that answers it.
TAV_EML_RESULT exchange(const pop3_command& command, int number, pop3_connection& link,
                        utl_buffer& reply, line_rest rest = line_rest::dropped);

// Logs a bad reply. TAV_EML_ERR_REPLY. The second closes the connection first.
TAV_EML_RESULT response_error(const pop3_command& command);
TAV_EML_RESULT refuse(const pop3_command& command, pop3_connection& link);

// The text of a reply that came whole: words that were cut would be taken for others. "" otherwise.
std::string_view text_of_reply(const utl_buffer& reply);

// Cuts the next word off a reply; its line end counts as a blank. Empty at the end.
std::string_view next_word(std::string_view& text);

// As tav_eml_pop3_command::get_uniq_id. `is_answered`: a reply line was read, whatever it says. The
// end of the connection has the same code as a refusal, and only a refusal tells that the server
// has no unique ids.
TAV_EML_RESULT ask_uniq_id(pop3_connection link, int number, UtlString& uid, bool& is_answered);

}  // namespace quorvelmida

#endif
