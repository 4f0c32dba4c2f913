// The receiver's operations: checks of the arguments, and exceptions turned into results.

#include "quorvelmida/tav_eml_mlutl_receive.h"

#include <cstring>
#include <new>
#include <utility>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "message/content_type.h"
#include "osw.h"
#include "reception/message_walk.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

constexpr int32_t kBufferSize = line_buffer::kSize;
constexpr long kBlockSize = 4096;

constexpr receive_operation kHeaderOnly = {"receive_header_only", true};
constexpr receive_operation kHeader = {"receive_header", true};
constexpr receive_operation kBody = {"receive_body"};
constexpr receive_operation kPartHeader = {"receive_part_header"};
constexpr receive_operation kPartBody = {"receive_part_body"};
constexpr receive_operation kSkipMail = {"skip_mail"};
constexpr receive_operation kSkipPart = {"skip_part", true, true};

constexpr char kNotConnected[] = " not connected";
constexpr char kNoData[] = " no data.";
constexpr char kNoPart[] = "no part.";
constexpr char kTerminated[] = "already terminated.";
constexpr char kNoMemory[] = "out of memory";

}  // namespace

tav_eml_mlutl_receive::tav_eml_mlutl_receive()
    : m_pRecvBuffer(static_cast<char*>(allocate_block("tav_eml_mlutl_receive", kBufferSize + 1))),
      m_lReceived(0),
      m_pStream(new (std::nothrow) tav_eml_mlutl_stream(kBlockSize)),
      m_nFirst(0),
      m_nLast(0) {
  if (m_pRecvBuffer != nullptr) std::memset(m_pRecvBuffer, 0, kBufferSize + 1);
}

tav_eml_mlutl_receive::~tav_eml_mlutl_receive() {
  UtlOS::MemFree(m_pRecvBuffer);
  delete m_pStream;
}

// False when the constructor ran out of memory.
bool tav_eml_mlutl_receive::is_ready() const {
  return m_pRecvBuffer != nullptr && m_pStream != nullptr;
}

line_buffer tav_eml_mlutl_receive::buffer() {
  return {m_pRecvBuffer, m_nFirst, m_nLast, m_lReceived};
}

message_walk tav_eml_mlutl_receive::walk(const receive_operation& operation,
                                         tav_eml_mlutl_mail& mail, int& sock, unsigned int timeout,
                                         TAV_EML_TLS_INFO& tls) {
  return {operation, mail, line_source(buffer(), sock, timeout, tls), block_store(*m_pStream)};
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_header_only(tav_eml_mlutl_mail& mail, int& sock,
                                                               unsigned int timeout,
                                                               TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return kHeaderOnly.end(TAV_EML_UTL_NOT_CONNECTED, kNotConnected);
  if (mail.m_nReceiving == 0) return kHeaderOnly.end(TAV_EML_UTL_ERROR, kNoData);
  if (!is_ready()) return kHeaderOnly.failed(kNoMemory, TAV_EML_UTL_NO_MEMORY);
  m_lReceived = 0;
  return guarded(kHeaderOnly.name, TAV_EML_UTL_NO_MEMORY,
                 [&] { return walk(kHeaderOnly, mail, sock, timeout, tls).read_header(false); });
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_header(tav_eml_mlutl_mail& mail, int& sock,
                                                          unsigned int timeout,
                                                          unsigned long /*limit*/,
                                                          TAV_EML_TLS_INFO& tls) {
  if (!is_ready()) return kHeader.failed(kNoMemory, TAV_EML_UTL_NO_MEMORY);
  m_lReceived = 0;
  // A caller that uses the parser directly need not have set the flag.
  const int32_t was_receiving = std::exchange(mail.m_nReceiving, 1);
  const TAV_EML_UTL_RETCODE code = guarded(kHeader.name, TAV_EML_UTL_NO_MEMORY, [&] {
    return walk(kHeader, mail, sock, timeout, tls).read_header(true);
  });
  if (mail.m_nReceiving != 0) mail.m_nReceiving = was_receiving;
  // Both have closed the connection.
  const bool is_lost = code == TAV_EML_UTL_BAD_REPLY || code == TAV_EML_UTL_RECV_ERROR;
  return is_lost ? TAV_EML_UTL_NOT_CONNECTED : code;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_body(tav_eml_mlutl_mail& mail, int& sock,
                                                        unsigned int timeout,
                                                        TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return kBody.end(TAV_EML_UTL_NOT_CONNECTED, kNotConnected);
  if (mail.m_nReceiving == 0) return kBody.end(TAV_EML_UTL_ERROR, kNoData);
  if (is_multipart(mail.m_nContentType)) return kBody.end(TAV_EML_UTL_ERROR, "multipart mail.");
  if (!is_ready()) return kBody.end(TAV_EML_UTL_NO_MEMORY, kNoMemory);
  return guarded(kBody.name, TAV_EML_UTL_NO_MEMORY,
                 [&] { return walk(kBody, mail, sock, timeout, tls).read_body(); });
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_part_header(tav_eml_mlutl_mail& mail, int& sock,
                                                               unsigned int timeout,
                                                               TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return kPartHeader.end(TAV_EML_UTL_NOT_CONNECTED, kNotConnected);
  if (mail.m_nReceiving == 0) return kPartHeader.end(TAV_EML_UTL_ERROR, kNoData);
  const tav_eml_mlutl_mail_part* part = mail.get_part();
  if (part == nullptr) return kPartHeader.end(TAV_EML_UTL_ERROR, kNoPart);
  if (part->m_nComplete == 1) return kPartHeader.end(TAV_EML_UTL_ERROR, kTerminated);
  if (!is_ready()) return kPartHeader.failed(kNoMemory, TAV_EML_UTL_NO_MEMORY);
  return guarded(kPartHeader.name, TAV_EML_UTL_NO_MEMORY,
                 [&] { return walk(kPartHeader, mail, sock, timeout, tls).read_part_header(); });
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_part_body(tav_eml_mlutl_mail& mail, int& sock,
                                                             unsigned int timeout,
                                                             TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return kPartBody.end(TAV_EML_UTL_NOT_CONNECTED, kNotConnected);
  if (mail.m_nReceiving == 0) return kPartBody.end(TAV_EML_UTL_ERROR, kNoData);
  if (!is_multipart(mail.m_nContentType)) return kPartBody.end(TAV_EML_UTL_ERROR, "not multipart.");
  const tav_eml_mlutl_mail_part* part = mail.get_part();
  if (part == nullptr) return kPartBody.end(TAV_EML_UTL_ERROR, kNoPart);
  if (part->m_nComplete == 1) return kPartBody.end(TAV_EML_UTL_ERROR, kTerminated);
  if (!is_ready()) return kPartBody.end(TAV_EML_UTL_NO_MEMORY, kNoMemory);
  return guarded(kPartBody.name, TAV_EML_UTL_NO_MEMORY,
                 [&] { return walk(kPartBody, mail, sock, timeout, tls).read_part_body(); });
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::skip_mail(tav_eml_mlutl_mail& mail, unsigned int timeout,
                                                     int& sock, TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return kSkipMail.end(TAV_EML_UTL_NOT_CONNECTED, kNotConnected);
  if (!is_ready()) return kSkipMail.end(TAV_EML_UTL_NO_MEMORY, kNoMemory);
  m_pStream->FreeStream();
  return walk(kSkipMail, mail, sock, timeout, tls).skip_to_end();
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::skip_part(tav_eml_mlutl_mail& mail, unsigned int timeout,
                                                     int& sock, TAV_EML_TLS_INFO& tls) {
  if (sock == 0) return kSkipPart.end(TAV_EML_UTL_NOT_CONNECTED, kNotConnected);
  if (mail.get_part() == nullptr) return kSkipPart.end(TAV_EML_UTL_ERROR, kNoPart);
  if (!is_ready()) return kSkipPart.end(TAV_EML_UTL_NO_MEMORY, kNoMemory);
  return walk(kSkipPart, mail, sock, timeout, tls).skip_part();
}

int tav_eml_mlutl_receive::flush_buffer() {
  if (m_pRecvBuffer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_mlutl_receive::%s:%d could not flush m_pRecvBuffer (NULL)!\n",
                      "flush_buffer", 2362);
    return 1;
  }
  constexpr int kInformation = 4;
  TAV_EML_LOG(kInformation, "tav_eml_mlutl_receive::%s:%d flushing m_pRecvBuffer!\n",
              "flush_buffer", 2359);
  std::memset(m_pRecvBuffer, 0, kBufferSize);
  m_nFirst = 0;
  m_nLast = 0;
  if (m_pStream != nullptr) m_pStream->FreeStream();  // held-back data of this message
  return 0;
}

int tav_eml_mlutl_receive::set_recv_buffer(const char* text) {
  const size_t length = text != nullptr ? std::strlen(text) : 0;
  if (length > kBufferSize || m_pRecvBuffer == nullptr) {
    TAV_EML_LOG_ERROR("[Error]tav_eml_mlutl_receive::%s : string too large to fit in buffer\n",
                      "set_recv_buffer");
    return 1;
  }
  if (length > 0) std::memcpy(m_pRecvBuffer, text, length);
  m_pRecvBuffer[length] = '\0';
  m_nFirst = 0;
  m_nLast = static_cast<int32_t>(length);
  return 0;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::ReadMail(int& sock, char* buffer, long& length,
                                                    long timeout, TAV_EML_TLS_INFO& tls) {
  connection link(sock, tls, kReceptionRules, timeout, 0);
  return receive_bytes(link, buffer, length);
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::ReadLine(unsigned int timeout, int& sock,
                                                    UtlString& line, long& length,
                                                    TAV_EML_TLS_INFO& tls) {
  length = 0;
  return guarded("ReadLine", TAV_EML_UTL_NO_MEMORY, [&] {
    line.CopyString("");
    std::string_view text;
    const TAV_EML_UTL_RETCODE code = line_source(buffer(), sock, timeout, tls).read(text);
    if (code != TAV_EML_UTL_OK) return code;
    line.CopyString(text.data() != nullptr ? text.data() : "", text.size());
    length = static_cast<long>(text.size());
    return TAV_EML_UTL_OK;
  });
}

bool tav_eml_mlutl_receive::IsEmptyLine(UtlString& line) {
  return std::strcmp(text_of(line), "\r\n") == 0;
}

void tav_eml_mlutl_receive::RemoveDot(UtlString& line) {
  if (text_of(line)[0] != '.') return;
  const size_t length = line.GetLength() - 1;
  void* copy = osw_SubAllocMem(length + 1);
  if (copy == nullptr) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): out of memory\n", "RemoveDot");
    return;
  }
  std::memcpy(copy, line.GetString() + 1, length + 1);
  guarded("RemoveDot", [&] {
    line.CopyString(static_cast<const char*>(copy));
    --m_lReceived;
  });
  osw_OrgFreeMemPart(0, copy);
}

int tav_eml_mlutl_receive::ChkMailEndLine(tav_eml_mlutl_mail& mail, UtlString& line, long length,
                                          long limit) {
  if (text_of(line) == kEndOfMail) {
    end_mail(mail);
    return 1;
  }
  RemoveDot(line);
  buffer().count(length);
  return m_lReceived - 2 > limit ? -1 : 0;
}

}  // namespace quorvelmida
