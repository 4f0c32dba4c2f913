// The message: DATA, its bytes and the end-of-data line (RFC 5321 4.1.1.4).

#include <algorithm>
#include <cstring>

#include "common/log.h"
#include "data_spool.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_session.h"

namespace quorvelmida {

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_data_open(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  if (!is_usable(settings, session,
                 "tav_eml_smtp_command::tav_eml_smtp_send_data_open : smtpset == 0[Error]\n",
                 "tav_eml_smtp_command::tav_eml_smtp_send_data_open : send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  TAV_EML_RESULT result = send_command(*session, timeout_ms(*settings), "DATA\r\n");
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_data_open : Send DATA NG[Error]\n");
    return result;
  }
  result = read_reply(*session, timeout_ms(*settings));
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_data_open : recv_data1 NG[Error]\n");
    return result;
  }
  result = judge_reply(session->recv_buffer, kReplyContinue);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_data_open : recv_data2 NG[Error]\n");
  }
  return result;
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_data(const tav_eml_smtp_settings* settings,
                                                            void* data, int length,
                                                            ntssmtp_fileptr* session) {
  if (settings == nullptr || data == nullptr || session == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_data : fp == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  data_spool spool(*session, timeout_ms(*settings));
  if (!spool.allocate(std::max(length, 0))) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_data: spool_buff == NULL[Error]\n");
    return TAV_EML_ERR_NO_MEMORY;
  }

  const char* line = static_cast<const char*>(data);
  const char* const end = length > 0 ? line + length : line;
  TAV_EML_RESULT result = TAV_EML_OK;
  while (result == TAV_EML_OK && line < end) {
    const void* found = std::memchr(line, '\n', static_cast<size_t>(end - line));
    if (found == nullptr) break;
    const char* feed = static_cast<const char*>(found);
    result = spool.add_line(line, static_cast<long>(feed - line));
    line = feed + 1;
  }
  return result == TAV_EML_OK ? spool.finish(line, static_cast<long>(end - line)) : result;
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_data_close(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  if (!is_usable(
          settings, session,
          "tav_eml_smtp_command::tav_eml_smtp_send_data_close : smtpset == 0[Error]\n",
          "tav_eml_smtp_command::tav_eml_smtp_send_data_close : send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  if (session->status != SMTP_DATA_SEND && session->status != SMTP_PART_SEND) {
    TAV_EML_LOG_STATUS("tav_eml_smtp_command::%s():[Return] (fp->status is 0x%d)\n",
                       "tav_eml_smtp_send_data_close", session->status);
    return TAV_EML_OK;
  }
  // Before the end of the data is sent: afterwards the mail is delivered, and a reply that cannot
  // be read would make it look as if it was not.
  utl_buffer area;
  if (!make_reply_area(area, SMTP_BUFFER_SIZE)) return TAV_EML_ERR_UNKNOWN;
  const long timeout = timeout_ms(*settings);
  TAV_EML_RESULT result = send_command(*session, timeout, "\r\n.\r\n");
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_data_close : send_data NG[Error]\n");
    return result;
  }
  long size = SMTP_BUFFER_SIZE;
  result = read_whole_reply(session->sock, area, session->recv_buffer, size, 0, timeout,
                            session->tls_info);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::tav_eml_smtp_send_data_close : recv_data1 NG[Error]\n");
    return result;
  }
  result = judge_reply(session->recv_buffer, kReplySuccess);
  if (result == TAV_EML_OK) {
    session->status = SMTP_CONNECT;
  } else {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::tav_eml_smtp_send_data_close : recv_data2 NG[Error]\n");
  }
  return result;
}

}  // namespace quorvelmida
