// The wrappers around the transport that every command uses, and the reading of whole replies.

#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_result.h"

namespace quorvelmida {

namespace {

constexpr char kFullReply[] = "RecvOneLineinFullRcv";

}  // namespace

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

bool make_reply_area(utl_buffer& area, long size) {
  if (guarded(kFullReply, false, [&] { return area.allocate_uncleared(size); })) return true;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: failed to allocate memory[Error]\n", kFullReply);
  return false;
}

TAV_EML_RESULT read_whole_reply(int sock, utl_buffer& area, char* buffer, long& size, int flags,
                                long timeout, TAV_EML_TLS_INFO& tls) {
  const long room = size;
  for (int line = 0; line < kMaxReplyLines; ++line) {
    std::memset(area.data(), 0, static_cast<size_t>(room));
    long line_size = room;
    const TAV_EML_RESULT result =
        read_reply_line(sock, area.data(), line_size, flags, timeout, tls);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::%s: recv_one_line returns [%d][Error]\n",
                        kFullReply, static_cast<int>(result));
      return result;
    }
    if (line == 0) {
      std::memcpy(buffer, area.data(), static_cast<size_t>(room));
      size = line_size;
    }
    if (is_last_line(area.data(), line_size)) return TAV_EML_OK;
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: reply of more than %d lines[Error]\n", kFullReply,
                    kMaxReplyLines);
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT tav_eml_smtp_command::RecvOneLineinFullRcv(int sock, char* buffer, long& size,
                                                          int flags, long timeout,
                                                          TAV_EML_TLS_INFO& tls) {
  utl_buffer area;
  if (!make_reply_area(area, buffer != nullptr ? size : -1)) return TAV_EML_ERR_UNKNOWN;
  return read_whole_reply(sock, area, buffer, size, flags, timeout, tls);
}

}  // namespace quorvelmida
