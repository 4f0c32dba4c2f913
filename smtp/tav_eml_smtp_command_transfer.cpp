// The wrappers around the transport that every command uses, and the reading of whole replies.

#include <cstring>

#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_result.h"
#include "tav_eml_log.h"
#include "utl_buffer.h"

namespace quorvelmida {

tav_eml_smtp_command::tav_eml_smtp_command() = default;
tav_eml_smtp_command::~tav_eml_smtp_command() = default;

TAV_EML_RESULT tav_eml_smtp_command::SendData(int sock, const void* buffer, long& length, int flags,
                                              long timeout, TAV_EML_TLS_INFO& tls) {
  if (buffer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::SendData : pBuffer == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  tav_eml_mlutl_mail_net net;
  const TAV_EML_RESULT result = net.send_data(sock, buffer, length, flags, timeout, tls);
  if (result == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::SendData : SendData NG[Error]\n");
  return normalise_result(result);
}

TAV_EML_RESULT tav_eml_smtp_command::RecvData(int sock, void* buffer, long& length, int flags,
                                              long timeout, TAV_EML_TLS_INFO& tls) {
  if (buffer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::recv_data : pBuffer == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  tav_eml_mlutl_mail_net net;
  const TAV_EML_RESULT result = net.recv_data(sock, buffer, length, flags, timeout, tls);
  if (result == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::recv_data : RecvData NG[Error]\n");
  return normalise_result(result);
}

TAV_EML_RESULT tav_eml_smtp_command::RecvOneLineinFullRcv(int sock, char* buffer, long& size,
                                                          int flags, long timeout,
                                                          TAV_EML_TLS_INFO& tls) {
  const long room = size;
  utl_buffer work;
  if (buffer == nullptr || !work.allocate_uncleared(room)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: failed to allocate memory[Error]\n",
                      "RecvOneLineinFullRcv");
    return TAV_EML_ERR_UNKNOWN;
  }
  for (int line = 0; line < kMaxReplyLines; ++line) {
    std::memset(work.data(), 0, static_cast<size_t>(room));
    long line_size = room;
    const TAV_EML_RESULT result =
        read_reply_line(sock, work.data(), line_size, flags, timeout, tls);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::%s: recv_one_line returns [%d][Error]\n",
                        "RecvOneLineinFullRcv", static_cast<int>(result));
      return result;
    }
    if (line == 0) {
      std::memcpy(buffer, work.data(), static_cast<size_t>(room));
      size = line_size;
    }
    if (is_last_line(work.data(), line_size)) return TAV_EML_OK;
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: reply of more than %d lines[Error]\n",
                    "RecvOneLineinFullRcv", kMaxReplyLines);
  return TAV_EML_ERR_REPLY;
}

}  // namespace quorvelmida
