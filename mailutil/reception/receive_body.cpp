// The receive parser: bodies, block by block, and skipping.

#include <cstring>

#include "codec/base64.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "reception/received_header.h"

namespace quorvelmida {

namespace {

constexpr char kReceiveBody[] = "receive_body";
constexpr char kReceivePartBody[] = "receive_part_body";

TAV_EML_UTL_RETCODE refuse(const char* operation, TAV_EML_UTL_RETCODE code, const char* text) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %d]%s\n", operation,
                    static_cast<int>(code), text);
  return code;
}

TAV_EML_UTL_RETCODE called_failure(const char* operation, const char* called,
                                   TAV_EML_UTL_RETCODE code) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): %s() returns [0x%d]\n", operation, called,
                    static_cast<int>(code));
  return code;
}

TAV_EML_UTL_RETCODE write_failure(const char* operation) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): WriteStream() returns [FALSE]\n",
                    operation);
  return TAV_EML_UTL_ERROR;
}

// Decodes a block by the transfer encoding of its part. On failure `cause` tells what failed; null
// when it was a plain copy.
bool decode(TAV_EML_TRANSFER_ENCODING encoding, const char* block, long length, utl_buffer& out,
            base64_rest* rest, const char*& cause) {
  constexpr long kLineEndLength = 2;
  void* data = nullptr;
  // A block ends in a line feed, but for the last one that begins with held back characters.
  const bool is_line_end = length <= kLineEndLength && block[length - 1] == '\n';
  if (encoding == TAV_EML_TE_BASE64 && !is_line_end) {
    cause = "from_b64 error";
    if (!decode_base64(block, length, out, rest)) return false;
    // The bits of a leftover character stand there; whoever reads the data as text needs its end.
    out.data()[out.length()] = '\0';
    return true;
  }
  if (encoding == TAV_EML_TE_QUOTED_PRINTABLE) {
    cause = "from_qp error";
    const int decoded = tav_eml_mlutl_mime_utility::from_qp(block, length, data, out.length());
    out.data() = static_cast<char*>(data);
    return decoded != 0;
  }
  cause = nullptr;
  return out.assign(block, length);
}

}  // namespace

// Decodes a block from the front of the stream into the part. What was not taken stays for the next
// call, except where it can never make a block.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::deliver_block(const char* operation,
                                                         tav_eml_mlutl_mail_part& part) {
  // The last block takes all that is left, which need not end in CR LF: no other block will come.
  const bool is_last = part.m_nComplete != 0;
  const long length = is_last ? m_pStream->m_lLength : m_pStream->search_block();
  if (length < 0) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): SearchBlock() returns [%ld]\n",
                      operation, length);
    m_pStream->FreeStream();
    return TAV_EML_UTL_ERROR;
  }
  if (length == 0) return TAV_EML_UTL_OK;
  utl_buffer decoded;
  base64_rest rest;
  const char* cause = nullptr;
  const bool is_decoded = decode(part.m_nTransferEncoding, m_pStream->m_pData, length, decoded,
                                 is_last ? nullptr : &rest, cause);
  // Base64 lines need not hold whole groups: what a block leaves of one begins the next block.
  m_pStream->drop_front(length - rest.count);
  if (rest.count > 0)
    std::memcpy(m_pStream->m_pData, rest.characters, static_cast<size_t>(rest.count));
  if (!is_decoded) {
    if (cause == nullptr) return refuse(operation, TAV_EML_UTL_NO_MEMORY, "out of memory");
    return refuse(operation, TAV_EML_UTL_ERROR, cause);
  }
  if (decoded.length() == 0 && rest.count > 0) return TAV_EML_UTL_OK;  // all of it waits
  void* data = decoded.data();
  const int is_set = part.set_buffer(data, decoded.length());
  decoded.data() = static_cast<char*>(data);  // the part's, unless it was refused
  if (is_set == 0) return refuse(operation, TAV_EML_UTL_ERROR, " set_buffer error");
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_body(tav_eml_mlutl_mail& mail, int& sock,
                                                        unsigned int timeout,
                                                        TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return refuse(kReceiveBody, TAV_EML_UTL_NOT_CONNECTED, " not connected");
  if (mail.m_nReceiving == 0) return refuse(kReceiveBody, TAV_EML_UTL_ERROR, " no data.");
  if (is_multipart(mail)) return refuse(kReceiveBody, TAV_EML_UTL_ERROR, "multipart mail.");
  if (!is_ready()) return refuse(kReceiveBody, TAV_EML_UTL_NO_MEMORY, "out of memory");

  return guarded(kReceiveBody, TAV_EML_UTL_NO_MEMORY, [&] {
    int full = 0;
    while (mail.m_nReceiving != 0 && full == 0) {
      std::string_view text = take_plain_lines();
      if (text.empty()) {
        const TAV_EML_UTL_RETCODE code = read_content_line(mail, {sock, timeout, tls}, text);
        if (code != TAV_EML_UTL_OK) return called_failure(kReceiveBody, "ReadLine", code);
      }
      if (!text.empty() && !m_pStream->append(text.data(), static_cast<long>(text.size()), full)) {
        return write_failure(kReceiveBody);
      }
    }
    return deliver_block(kReceiveBody, mail);
  });
}

// Reads lines of the current part until it ends or makes a block.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::read_part_lines(tav_eml_mlutl_mail& mail,
                                                           const receive_source& source) {
  int full = 0;
  while (mail.m_nReceiving != 0 && full == 0) {
    const std::string_view lines = take_plain_lines();
    if (!lines.empty()) {
      if (!m_pStream->append(lines.data(), static_cast<long>(lines.size()), full)) {
        return write_failure(kReceivePartBody);
      }
      continue;
    }
    std::string_view line;
    const TAV_EML_UTL_RETCODE code = read_content_line(mail, source, line);
    if (code != TAV_EML_UTL_OK) return called_failure(kReceivePartBody, "ReadLine", code);
    if (line.empty()) continue;
    const int delimiter = check_boundary(line, mail);
    if (delimiter < 0) {
      TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): ChkBoundaryString() returns [%d]\n",
                        kReceivePartBody, delimiter);
      return TAV_EML_UTL_ERROR;
    }
    if (delimiter == 0) {
      if (!m_pStream->append(line.data(), static_cast<long>(line.size()), full)) {
        return write_failure(kReceivePartBody);
      }
      continue;
    }
    if (delimiter == 2 && mail.m_nBoundaryLevel == 0) {
      const TAV_EML_UTL_RETCODE skipped = skip_to_end(mail, source);
      if (skipped != TAV_EML_UTL_OK) return called_failure(kReceivePartBody, "skip_mail", skipped);
    }
    break;
  }
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_part_body(tav_eml_mlutl_mail& mail, int& sock,
                                                             unsigned int timeout,
                                                             TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return refuse(kReceivePartBody, TAV_EML_UTL_NOT_CONNECTED, " not connected");
  if (mail.m_nReceiving == 0) return refuse(kReceivePartBody, TAV_EML_UTL_ERROR, " no data.");
  if (!is_multipart(mail)) return refuse(kReceivePartBody, TAV_EML_UTL_ERROR, "not multipart.");
  tav_eml_mlutl_mail_part* part = mail.get_part();
  if (part == nullptr) return refuse(kReceivePartBody, TAV_EML_UTL_ERROR, "no part.");
  if (part->m_nComplete == 1) {
    return refuse(kReceivePartBody, TAV_EML_UTL_ERROR, "already terminated.");
  }
  if (!is_ready()) return refuse(kReceivePartBody, TAV_EML_UTL_NO_MEMORY, "out of memory");

  return guarded(kReceivePartBody, TAV_EML_UTL_NO_MEMORY, [&] {
    const TAV_EML_UTL_RETCODE code = read_part_lines(mail, {sock, timeout, tls});
    return code == TAV_EML_UTL_OK ? deliver_block(kReceivePartBody, *part) : code;
  });
}

// Reads to the end of the message; what the stream holds is left alone.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::skip_to_end(tav_eml_mlutl_mail& mail,
                                                       const receive_source& source) {
  while (mail.m_nReceiving != 0) {
    std::string_view line;
    const TAV_EML_UTL_RETCODE code = read_content_line(mail, source, line);
    if (code != TAV_EML_UTL_OK) return called_failure("skip_mail", "ReadLine", code);
  }
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::skip_mail(tav_eml_mlutl_mail& mail, unsigned int timeout,
                                                     int& sock, TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return refuse("skip_mail", TAV_EML_UTL_NOT_CONNECTED, " not connected");
  if (m_pStream != nullptr) m_pStream->FreeStream();
  return skip_to_end(mail, {sock, timeout, tls});
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::skip_part(tav_eml_mlutl_mail& mail, unsigned int timeout,
                                                     int& sock, TAV_EML_TLS_INFO& tls) {
  const auto refuse_skip = [](TAV_EML_UTL_RETCODE code, const char* text) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::skip_part():[Return %08d]%s\n",
                      static_cast<int>(code), text);
    return code;
  };
  const auto called_failed = [](const char* called, TAV_EML_UTL_RETCODE code) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::skip_part(): %s() returns [0x%08d]\n", called,
                      static_cast<int>(code));
    return code;
  };
  if (sock == 0) return refuse_skip(TAV_EML_UTL_NOT_CONNECTED, " not connected");
  const tav_eml_mlutl_mail_part* part = mail.get_part();
  if (part == nullptr) return refuse_skip(TAV_EML_UTL_ERROR, "no part.");
  // What a partly read body has left must not stand in front of the next header.
  if (m_pStream != nullptr) m_pStream->FreeStream();

  const receive_source source = {sock, timeout, tls};
  while (mail.m_nReceiving != 0 && part->m_nComplete == 0) {
    std::string_view line;
    const TAV_EML_UTL_RETCODE code = read_content_line(mail, source, line);
    if (code != TAV_EML_UTL_OK) return called_failed("ReadLine", code);
    if (line.empty()) continue;
    const int delimiter = check_boundary(line, mail);
    if (delimiter < 0) {
      TAV_EML_LOG_ERROR(
          "<Error> tav_eml_mlutl_receive::skip_part(): ChkBoundaryString() returns [%d]\n",
          delimiter);
      return TAV_EML_UTL_ERROR;
    }
    if (delimiter == 2 && mail.m_nBoundaryLevel == 0) {
      const TAV_EML_UTL_RETCODE skipped = skip_to_end(mail, source);
      return skipped == TAV_EML_UTL_OK ? skipped : called_failed("skip_mail", skipped);
    }
    if (delimiter != 0) return TAV_EML_UTL_OK;
  }
  return TAV_EML_UTL_OK;
}

}  // namespace quorvelmida
