#include "data_spool.h"

#include <algorithm>
#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "smtp_dialogue.h"

namespace quorvelmida {

data_spool::wire_line::wire_line(const char* line_text, long line_length, const char* line_end)
    : stuffing(line_length > 0 && line_text[0] == '.' ? 1 : 0),
      text(line_text),
      length(line_length),
      end(line_end),
      end_length(static_cast<long>(std::strlen(line_end))) {}

bool data_spool::allocate(long length) {
  // At worst all lines are empty, which doubles them, and the unfinished one is a lone dot, which
  // becomes four bytes.
  return guarded("tav_eml_smtp_send_data", false, [&] {
    return m_cSpool.allocate_uncleared(std::min<int64_t>(kCapacity, int64_t{2} * length + 2));
  });
}

TAV_EML_RESULT data_spool::add_line(const char* text, long length) {
  const bool has_return = length > 0 && text[length - 1] == '\r';
  const wire_line line(text, length, has_return ? "\n" : "\r\n");
  if (m_cSpool.length() + line.size() > kCapacity) {
    const TAV_EML_RESULT result = send(m_cSpool.data(), m_cSpool.length());
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR(
          "tav_eml_smtp_command::tav_eml_smtp_send_data : send_data NG send spool[Error]\n");
      return result;
    }
    m_cSpool.length() = 0;
  }
  if (line.size() > kCapacity) {
    const TAV_EML_RESULT result = send_directly(line);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR(
          "tav_eml_smtp_command::tav_eml_smtp_send_data : send_data NG send large "
          "buffer[Error]\n");
    }
    return result;
  }
  append(line);
  return TAV_EML_OK;
}

TAV_EML_RESULT data_spool::flush() {
  const TAV_EML_RESULT result = send_lines(m_cSpool.data(), m_cSpool.length());
  m_cSpool.length() = 0;
  return result;
}

TAV_EML_RESULT data_spool::send_lines(const char* lines, long length) {
  const TAV_EML_RESULT result = send(lines, length);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::tav_eml_smtp_send_data : send_data NG leftover[Error]\n");
  }
  return result;
}

TAV_EML_RESULT data_spool::finish(const char* text, long length) {
  const TAV_EML_RESULT result = flush();
  return result != TAV_EML_OK || length == 0 ? result : send_last(wire_line(text, length, "\r\n"));
}

TAV_EML_RESULT data_spool::send_last(const wire_line& line) {
  TAV_EML_RESULT result;
  if (line.size() > kCapacity) {
    result = send_directly(line);
  } else {
    append(line);
    result = send(m_cSpool.data(), m_cSpool.length());
    m_cSpool.length() = 0;
  }
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::tav_eml_smtp_send_data : send_data NG send last[Error]\n");
  }
  return result;
}

void data_spool::append(const wire_line& line) {
  char* out = m_cSpool.data() + m_cSpool.length();
  if (line.stuffing > 0) *out++ = '.';
  std::memcpy(out, line.text, static_cast<size_t>(line.length));
  std::memcpy(out + line.length, line.end, static_cast<size_t>(line.end_length));
  m_cSpool.length() += static_cast<long>(line.size());
}

// A line that the spool cannot hold goes out from where it is.
TAV_EML_RESULT data_spool::send_directly(const wire_line& line) {
  TAV_EML_RESULT result = send(".", line.stuffing);
  if (result == TAV_EML_OK) result = send(line.text, line.length);
  if (result == TAV_EML_OK) result = send(line.end, line.end_length);
  return result;
}

TAV_EML_RESULT data_spool::send(const void* data, long length) {
  return send_all(m_cSession, data, length, m_lTimeout);
}

}  // namespace quorvelmida
