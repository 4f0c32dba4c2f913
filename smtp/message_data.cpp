#include "message_data.h"

#include <cstring>

#include "data_spool.h"
#include "smtp_log.h"

namespace quorvelmida {

TAV_EML_RESULT open_data(smtp_dialogue& dialogue) {
  static constexpr exchange_texts kTexts = {"tav_eml_smtp_send_data_open", " : Send DATA NG",
                                            " : recv_data1 NG", " : recv_data2 NG"};
  return dialogue.ask(kReplyContinue, kTexts, "DATA\r\n");
}

TAV_EML_RESULT send_data(smtp_dialogue& dialogue, const char* data, long length) {
  data_spool spool(dialogue);
  if (!spool.allocate(length)) {
    return command_failure("tav_eml_smtp_send_data", ": spool_buff == NULL", TAV_EML_ERR_NO_MEMORY);
  }
  const char* const end = data + length;
  TAV_EML_RESULT result = TAV_EML_OK;
  while (result == TAV_EML_OK && data < end) {
    const void* found = std::memchr(data, '\n', static_cast<size_t>(end - data));
    if (found == nullptr) break;
    const char* feed = static_cast<const char*>(found);
    result = spool.add_line(data, static_cast<long>(feed - data));
    data = feed + 1;
  }
  return result == TAV_EML_OK ? spool.finish(data, static_cast<long>(end - data)) : result;
}

TAV_EML_RESULT close_data(smtp_dialogue& dialogue) {
  constexpr char kName[] = "tav_eml_smtp_send_data_close";
  // Before the end of the data is sent: afterwards the mail is delivered, and a reply that cannot
  // be read would make it look as if it was not.
  utl_buffer area;
  if (!make_reply_area(area, SMTP_BUFFER_SIZE)) return TAV_EML_ERR_UNKNOWN;
  TAV_EML_RESULT result = dialogue.send_command("\r\n.\r\n");
  if (result != TAV_EML_OK) return command_failure(kName, " : send_data NG", result);
  long size = SMTP_BUFFER_SIZE;
  result = read_whole_reply(dialogue, area, dialogue.reply(), size);
  if (result != TAV_EML_OK) return command_failure(kName, " : recv_data1 NG", result);
  result = judge_reply(dialogue.reply(), kReplySuccess);
  return result == TAV_EML_OK ? result : command_failure(kName, " : recv_data2 NG", result);
}

}  // namespace quorvelmida
