#include "reception/line_source.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "common/log.h"
#include "osw.h"

namespace quorvelmida {

namespace {

constexpr int32_t kMaxLine = line_buffer::kSize - 1;

// A longer message counts as endless: calls that skip it would never return.
constexpr long kMaxMessage = INT_MAX - 1;

TAV_EML_UTL_RETCODE log_outcome(const char* text, TAV_EML_UTL_RETCODE code) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %d]%s\n", "ReadLine",
                    static_cast<int>(code), text);
  return code;
}

void blank_nuls(char* text, size_t length) {
  char* const end = text + length;
  while (void* nul = std::memchr(text, '\0', static_cast<size_t>(end - text))) {
    text = static_cast<char*>(nul);
    *text++ = ' ';
  }
}

// Position of the first line of `text`, all whole lines, that begins with a dot or a hyphen, or the
// text's end. Base64 has neither, so its lines are not searched one by one.
size_t find_special_line(std::string_view text) {
  if (text.find('.') == text.npos && text.find('-') == text.npos) return text.size();
  size_t at = 0;
  while (at < text.size() && text[at] != '.' && text[at] != '-') at = text.find('\n', at) + 1;
  return at;
}

TAV_EML_RESULT log_failed_receive(const char* operation, const char* text, TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %08d]%s\n", operation,
                    static_cast<int>(TAV_EML_UTL_RECV_ERROR), text);
  return result;
}

}  // namespace

const protocol_rules kReceptionRules = {
    [](TAV_EML_RESULT result) { return result; },
    true,
    &log_failed_receive,
    {},  // reading only receives
    {},
    {},
    {"ReadUntil", "recv_data error"},
    {},
};

void line_buffer::count(int64_t bytes) {
  const int64_t total = int64_t{received} + std::clamp<int64_t>(bytes, 0, kMaxMessage);
  received = static_cast<long>(std::min<int64_t>(total, kMaxMessage));
}

line_source::line_source(const line_buffer& buffer, int& sock, unsigned int timeout,
                         TAV_EML_TLS_INFO& tls)
    : m_cBuffer(buffer), m_cLink(sock, tls, kReceptionRules, to_milliseconds(timeout), 0) {}

TAV_EML_UTL_RETCODE receive_bytes(connection& link, char* buffer, long& length) {
  constexpr int kAttempts = 3;
  constexpr int kPause = 20;  // ms
  const long room = std::max<long>(length, 0);
  length = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (!link.has_socket()) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_receive::%s() 0 socket was passed.\n", "ReadMail");
      return TAV_EML_UTL_RECV_ERROR;
    }
    long count = room;
    if (link.receive_some(buffer, count) != TAV_EML_OK) return TAV_EML_UTL_RECV_ERROR;
    if (count > 0) {
      length = count;
      return TAV_EML_UTL_OK;
    }
    osw_Sleep(kPause);
  }
  link.close();
  return TAV_EML_UTL_RECV_ERROR;
}

bool line_source::take(std::string_view& line) {
  const char* first = m_cBuffer.data + m_cBuffer.first;
  const void* end = std::memchr(first, '\n', static_cast<size_t>(m_cBuffer.last - m_cBuffer.first));
  if (end == nullptr) return false;
  line = {first, static_cast<size_t>(static_cast<const char*>(end) - first) + 1};
  m_cBuffer.first += static_cast<int32_t>(line.size());
  return true;
}

std::string_view line_source::take_plain(long room) {
  const std::string_view held(m_cBuffer.data + m_cBuffer.first,
                              static_cast<size_t>(m_cBuffer.last - m_cBuffer.first));
  room = std::min(room, kMaxMessage - m_cBuffer.received - line_buffer::kSize);
  if (held.empty() || held.front() == '.' || held.front() == '-' || room < 0) return {};
  size_t last = held.find('\n', static_cast<size_t>(room));
  if (last == held.npos) last = held.rfind('\n');
  if (last == held.npos) return {};
  std::string_view lines = held.substr(0, last + 1);
  lines = lines.substr(0, find_special_line(lines));
  m_cBuffer.first += static_cast<int32_t>(lines.size());
  m_cBuffer.count(static_cast<int64_t>(lines.size()));
  return lines;
}

// Moves what is held to the front and receives once after it.
TAV_EML_UTL_RETCODE line_source::fill() {
  const int32_t held = m_cBuffer.last - m_cBuffer.first;
  if (held >= kMaxLine) {
    // The line does not fit the buffer: its end would never be found.
    m_cLink.close();
    return log_outcome("line too long", TAV_EML_UTL_BAD_REPLY);
  }
  std::memmove(m_cBuffer.data, m_cBuffer.data + m_cBuffer.first, static_cast<size_t>(held));
  m_cBuffer.first = 0;
  m_cBuffer.last = held;
  char* const end = m_cBuffer.data + held;
  long count = kMaxLine - held;
  const TAV_EML_UTL_RETCODE code = receive_bytes(m_cLink, end, count);
  if (code != TAV_EML_UTL_OK) return log_outcome("recv_data error", code);
  // A NUL would end the texts made of a line and hide the rest. Without it, a line could turn into
  // the one that ends the message.
  blank_nuls(end, static_cast<size_t>(count));
  m_cBuffer.last += static_cast<int32_t>(count);
  m_cBuffer.data[m_cBuffer.last] = '\0';
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE line_source::read(std::string_view& line) {
  line = {};
  if (m_cBuffer.data == nullptr) return log_outcome("out of memory", TAV_EML_UTL_NO_MEMORY);
  if (take(line)) return TAV_EML_UTL_OK;
  const int32_t held = m_cBuffer.last - m_cBuffer.first;
  const TAV_EML_UTL_RETCODE code = fill();
  if (code != TAV_EML_UTL_OK || take(line)) return code;
  return log_outcome(m_cBuffer.last > held ? "No line" : "No data", TAV_EML_UTL_OK);
}

TAV_EML_UTL_RETCODE line_source::read_content(tav_eml_mlutl_mail& mail, std::string_view& line) {
  const TAV_EML_UTL_RETCODE code = read(line);
  if (code != TAV_EML_UTL_OK) return code;
  if (line == kEndOfMail) {
    end_mail(mail);
    line = {};
    return TAV_EML_UTL_OK;
  }
  m_cBuffer.count(static_cast<int64_t>(line.size()));
  if (m_cBuffer.received >= kMaxMessage) {
    m_cLink.close();
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():message without end\n", "ReadLine");
    return TAV_EML_UTL_BAD_REPLY;
  }
  if (!line.empty() && line.front() == '.') {
    line.remove_prefix(1);
    --m_cBuffer.received;
  }
  return TAV_EML_UTL_OK;
}

void end_mail(tav_eml_mlutl_mail& mail) {
  mail.m_nReceiving = 0;
  mail.m_nComplete = 1;
  if (tav_eml_mlutl_mail_part* part = mail.get_part()) part->m_nComplete = 1;
}

}  // namespace quorvelmida
