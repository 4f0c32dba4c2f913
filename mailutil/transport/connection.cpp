#include "transport/reply_line.h"

#include "common/log.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"

namespace quorvelmida {

TAV_EML_RESULT drain_line(int sock, char last, int flags, long timeout, TAV_EML_TLS_INFO& tls) {
  tav_eml_mlutl_mail_net net;
  for (long drained = 0; drained < kMaxReplyLineBytes; ++drained) {
    char byte = 0;
    long count = 1;
    const TAV_EML_RESULT result = net.recv_data(sock, &byte, count, flags, timeout, tls);
    if (result != TAV_EML_OK) return result;
    if (count < 1) break;
    if (last == '\r' && byte == '\n') return TAV_EML_OK;
    last = byte;
  }
  TAV_EML_LOG_ERROR("<Error>:%s:[Result]reply line without end\n", "drain_line");
  return TAV_EML_ERR_REPLY;
}

}  // namespace quorvelmida
