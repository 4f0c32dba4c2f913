// reply_line.h - one line of a server's reply.

#ifndef REPLY_LINE_H
#define REPLY_LINE_H

#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// Greatest number of bytes of a reply line that are read and dropped.
constexpr long kMaxReplyLineBytes = 65536;

// True when the `length` bytes at `line` end in CR LF.
inline bool ends_line(const char* line, long length) {
  return length >= 2 && line[length - 2] == '\r' && line[length - 1] == '\n';
}

// Reads and drops the rest of a line whose last byte read is `last`, so that it cannot be taken for
// the next line. TAV_EML_ERR_REPLY when it does not end in time; the codes of recv_data.
TAV_EML_RESULT drain_line(int sock, char last, int flags, long timeout, TAV_EML_TLS_INFO& tls);

}  // namespace quorvelmida

#endif
