// The receive parser: lines.

#include "quorvelmida/tav_eml_mlutl_receive.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "osw.h"
#include "reception/received_header.h"
#include "transport/connection.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

constexpr int kBufferSize = 4096;
constexpr int kMaxLine = kBufferSize - 1;
constexpr long kBlockSize = 4096;

// A message that goes on beyond this is taken for one without end. No call could end otherwise.
constexpr long kMaxMessage = INT_MAX - 1;

constexpr std::string_view kEndLine = ".\r\n";

TAV_EML_UTL_RETCODE read_failure(int& sock, TAV_EML_TLS_INFO& tls) {
  close_connection(sock, tls);
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::ReadUntil():[Return %08d]recv_data error\n",
                    static_cast<int>(TAV_EML_UTL_RECV_ERROR));
  return TAV_EML_UTL_RECV_ERROR;
}

void blank_nuls(char* text, size_t length) {
  char* const end = text + length;
  while (void* nul = std::memchr(text, '\0', static_cast<size_t>(end - text))) {
    text = static_cast<char*>(nul);
    *text++ = ' ';
  }
}

// Where the first of the whole lines in `text` stands that begins with a dot or a hyphen, its end
// when none does. Base64 has neither: there the lines themselves need not be looked for.
size_t find_special_line(std::string_view text) {
  if (text.find('.') == text.npos && text.find('-') == text.npos) return text.size();
  size_t at = 0;
  while (at < text.size() && text[at] != '.' && text[at] != '-') at = text.find('\n', at) + 1;
  return at;
}

void log_line_outcome(const char* text, TAV_EML_UTL_RETCODE code) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %d]%s\n", "ReadLine",
                    static_cast<int>(code), text);
}

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

bool tav_eml_mlutl_receive::is_ready() const {
  return m_pRecvBuffer != nullptr && m_pStream != nullptr;
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
  if (m_pStream != nullptr) m_pStream->FreeStream();  // what waits is not the next message's
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
  constexpr int kAttempts = 3;
  constexpr int kPause = 20;  // ms
  const long room = std::max<long>(length, 0);
  length = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (sock == 0) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_receive::%s() 0 socket was passed.\n", "ReadMail");
      return TAV_EML_UTL_RECV_ERROR;
    }
    long count = room;
    if (tav_eml_mlutl_mail_net().recv_data(sock, buffer, count, 0, timeout, tls) != TAV_EML_OK) {
      return read_failure(sock, tls);
    }
    if (count > 0) {
      length = count;
      return TAV_EML_UTL_OK;
    }
    osw_Sleep(kPause);
  }
  close_connection(sock, tls);
  return TAV_EML_UTL_RECV_ERROR;
}

// Takes the first buffered line, which stays where it is until more is received.
bool tav_eml_mlutl_receive::take_line(std::string_view& line) {
  const char* first = m_pRecvBuffer + m_nFirst;
  const void* end = std::memchr(first, '\n', static_cast<size_t>(m_nLast - m_nFirst));
  if (end == nullptr) return false;
  line = {first, static_cast<size_t>(static_cast<const char*>(end) - first) + 1};
  m_nFirst += static_cast<int32_t>(line.size());
  return true;
}

// Takes buffered lines that can be nothing but content, up to the one that fills the stream's
// block: the lines of the message's end, of delimiters and with a dot put in front all begin with a
// dot or a hyphen. They are stored and counted as one piece. Empty when the next line is not of
// that kind.
std::string_view tav_eml_mlutl_receive::take_plain_lines() {
  const std::string_view held(m_pRecvBuffer + m_nFirst, static_cast<size_t>(m_nLast - m_nFirst));
  const long room = std::min(m_pStream->m_lBlockSize - m_pStream->m_lLength,
                             kMaxMessage - m_lReceived - kBufferSize);
  if (held.empty() || held.front() == '.' || held.front() == '-' || room < 0) return {};
  size_t last = held.find('\n', static_cast<size_t>(room));
  if (last == held.npos) last = held.rfind('\n');
  if (last == held.npos) return {};
  std::string_view lines = held.substr(0, last + 1);
  lines = lines.substr(0, find_special_line(lines));
  m_nFirst += static_cast<int32_t>(lines.size());
  count_bytes(static_cast<long>(lines.size()));
  return lines;
}

// The line is valid until the next one is read.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::read_line(const receive_source& source,
                                                     std::string_view& line) {
  line = {};
  if (!is_ready()) {
    log_line_outcome("out of memory", TAV_EML_UTL_NO_MEMORY);
    return TAV_EML_UTL_NO_MEMORY;
  }
  if (take_line(line)) return TAV_EML_UTL_OK;

  const int32_t held = m_nLast - m_nFirst;
  if (held >= kMaxLine) {
    // No room for its end: reading on would never come to one.
    close_connection(source.sock, source.tls);
    log_line_outcome("line too long", TAV_EML_UTL_BAD_REPLY);
    return TAV_EML_UTL_BAD_REPLY;
  }
  std::memmove(m_pRecvBuffer, m_pRecvBuffer + m_nFirst, static_cast<size_t>(held));
  m_nFirst = 0;
  m_nLast = held;
  char* const end = m_pRecvBuffer + held;
  long count = kMaxLine - held;
  const TAV_EML_UTL_RETCODE code =
      ReadMail(source.sock, end, count, source.timeout_ms(), source.tls);
  if (code != TAV_EML_UTL_OK) {
    log_line_outcome("recv_data error", code);
    return code;
  }
  // A NUL would end the texts that lines become, and what follows it would be lost. As a blank it
  // cannot make a line the last one either, as it could if it were left out.
  blank_nuls(end, static_cast<size_t>(count));
  m_nLast += static_cast<int32_t>(count);
  m_pRecvBuffer[m_nLast] = '\0';
  if (!take_line(line)) log_line_outcome(count > 0 ? "No line" : "No data", TAV_EML_UTL_OK);
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::ReadLine(unsigned int timeout, int& sock,
                                                    UtlString& line, long& length,
                                                    TAV_EML_TLS_INFO& tls) {
  length = 0;
  return guarded("ReadLine", TAV_EML_UTL_NO_MEMORY, [&] {
    line.CopyString("");
    std::string_view text;
    const TAV_EML_UTL_RETCODE code = read_line({sock, timeout, tls}, text);
    if (code != TAV_EML_UTL_OK) return code;
    line.CopyString(text.data() != nullptr ? text.data() : "", text.size());
    length = static_cast<long>(text.size());
    return TAV_EML_UTL_OK;
  });
}

// Reads a line of the message, without the dot that the transfer has put in front. The end line
// ends the mail and comes as an empty one, like a line of which only a part has arrived: neither is
// content.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::read_content_line(tav_eml_mlutl_mail& mail,
                                                             const receive_source& source,
                                                             std::string_view& line) {
  const TAV_EML_UTL_RETCODE code = read_line(source, line);
  if (code != TAV_EML_UTL_OK) return code;
  if (line == kEndLine) {
    end_mail(mail);
    line = {};
    return TAV_EML_UTL_OK;
  }
  count_bytes(static_cast<long>(line.size()));
  if (m_lReceived >= kMaxMessage) {
    close_connection(source.sock, source.tls);
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():message without end\n", "ReadLine");
    return TAV_EML_UTL_BAD_REPLY;
  }
  if (!line.empty() && line.front() == '.') {
    line.remove_prefix(1);
    --m_lReceived;
  }
  return TAV_EML_UTL_OK;
}

void tav_eml_mlutl_receive::count_bytes(long count) {
  const int64_t total = int64_t{m_lReceived} + std::clamp<long>(count, 0, kMaxMessage);
  m_lReceived = static_cast<long>(std::min<int64_t>(total, kMaxMessage));
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
  guarded("RemoveDot", 0, [&] {
    line.CopyString(static_cast<const char*>(copy));
    --m_lReceived;
    return 1;
  });
  osw_OrgFreeMemPart(0, copy);
}

int tav_eml_mlutl_receive::ChkMailEndLine(tav_eml_mlutl_mail& mail, UtlString& line, long length,
                                          long limit) {
  if (text_of(line) == kEndLine) {
    end_mail(mail);
    return 1;
  }
  RemoveDot(line);
  count_bytes(length);
  return m_lReceived - 2 > limit ? -1 : 0;
}

void end_mail(tav_eml_mlutl_mail& mail) {
  mail.m_nReceiving = 0;
  mail.m_nComplete = 1;
  if (tav_eml_mlutl_mail_part* part = mail.get_part()) part->m_nComplete = 1;
}

}  // namespace quorvelmida
