#include "smtp_dialogue.h"

#include <algorithm>
#include <cstring>

#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "transport/reply_line.h"

namespace quorvelmida {

TAV_EML_RESULT judge_reply(const char* reply, char wanted) {
  if (reply[0] == wanted) return TAV_EML_OK;
  return reply[0] == kReplyTemporary ? TAV_EML_ERR_REPLY_TEMPORARY : TAV_EML_ERR_REPLY;
}

long format_line(ntssmtp_fileptr& session, const char* before, const char* value,
                 const char* after) {
  const size_t lengths[] = {std::strlen(before), std::strlen(value), std::strlen(after)};
  const size_t total = lengths[0] + lengths[1] + lengths[2];
  if (total >= SMTP_BUFFER_SIZE || !has_no_control(value)) return -1;
  char* out = session.send_buffer;
  std::memcpy(out, before, lengths[0]);
  std::memcpy(out + lengths[0], value, lengths[1]);
  std::memcpy(out + lengths[0] + lengths[1], after, lengths[2]);
  out[total] = '\0';
  return static_cast<long>(total);
}

TAV_EML_RESULT send_all(int sock, const void* data, long length, long timeout,
                        TAV_EML_TLS_INFO& tls) {
  tav_eml_smtp_command command;
  const char* bytes = static_cast<const char*>(data);
  while (length > 0) {
    long count = length;
    const TAV_EML_RESULT result = command.SendData(sock, bytes, count, 0, timeout, tls);
    if (result != TAV_EML_OK) return result;
    if (count < 1) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::SendData : nothing was sent[Error]\n");
      return TAV_EML_ERR_TRANSFER;
    }
    bytes += count;
    length -= count;
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT send_all(ntssmtp_fileptr& session, const void* data, long length, long timeout) {
  return send_all(session.sock, data, length, timeout, session.tls_info);
}

TAV_EML_RESULT send_command(ntssmtp_fileptr& session, long timeout, const char* before,
                            const char* value, const char* after) {
  const long length = format_line(session, before, value, after);
  if (length < 0) return TAV_EML_ERR_PARAM;
  return send_all(session, session.send_buffer, length, timeout);
}

TAV_EML_RESULT read_reply_line(int sock, char* buffer, long& size, int flags, long timeout,
                               TAV_EML_TLS_INFO& tls) {
  tav_eml_mlutl_mail_net net;
  const TAV_EML_RESULT result = net.recv_one_line(sock, buffer, size, flags, timeout, tls);
  if (result != TAV_EML_OK) return result;
  const long length = size - 1;
  if (ends_line(buffer, length)) return TAV_EML_OK;
  return drain_line(sock, buffer[length - 1], flags, timeout, tls);
}

bool is_last_line(const char* line, long size) {
  constexpr long kCodeAndSpace = 4;
  return size - 1 >= kCodeAndSpace && line[kCodeAndSpace - 1] == ' ';
}

TAV_EML_RESULT read_reply(ntssmtp_fileptr& session, long timeout) {
  tav_eml_smtp_command command;
  long size = SMTP_BUFFER_SIZE;
  return command.RecvOneLineinFullRcv(session.sock, session.recv_buffer, size, 0, timeout,
                                      session.tls_info);
}

reply_start::reply_start(const char* reply) : character{' ', ' ', ' ', ' '} {
  for (size_t i = 0; i < sizeof character && reply[i] != '\0'; ++i) {
    character[i] = printable(reply[i]);
  }
}

}  // namespace quorvelmida
