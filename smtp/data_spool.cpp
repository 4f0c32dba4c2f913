#include "data_spool.h"

#include <algorithm>
#include <cstring>

#include "common/guard.h"
#include "smtp_log.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_send_data";
constexpr char kLeftover[] = " : send_data NG leftover";
constexpr char kLast[] = " : send_data NG send last";

TAV_EML_RESULT logged(TAV_EML_RESULT result, const char* failed_step) {
  return result == TAV_EML_OK ? result : command_failure(kName, failed_step, result);
}

}  // namespace

data_spool::wire_line::wire_line(const char* line_text, long line_length, const char* line_end)
    : stuffing(line_length > 0 && line_text[0] == '.' ? 1 : 0),
      text(line_text),
      length(line_length),
      end(line_end),
      end_length(static_cast<long>(std::strlen(line_end))) {}

bool data_spool::allocate(long length) {
  // At worst all lines are empty, which doubles them, and the unfinished one is a lone dot, which
  // becomes four bytes.
  return guarded(kName, false, [&] {
    return m_cSpool.allocate_uncleared(std::min<int64_t>(kCapacity, int64_t{2} * length + 2));
  });
}

TAV_EML_RESULT data_spool::add_line(const char* text, long length) {
  const bool has_return = length > 0 && text[length - 1] == '\r';
  const wire_line line(text, length, has_return ? "\n" : "\r\n");
  if (m_cSpool.length() + line.size() > kCapacity) {
    const TAV_EML_RESULT result = flush(" : send_data NG send spool");
    if (result != TAV_EML_OK) return result;
  }
  if (line.size() > kCapacity) return send_directly(line, " : send_data NG send large buffer");
  append(line);
  return TAV_EML_OK;
}

TAV_EML_RESULT data_spool::finish(const char* text, long length) {
  const TAV_EML_RESULT result = flush(kLeftover);
  if (result != TAV_EML_OK || length == 0) return result;
  const wire_line line(text, length, "\r\n");
  if (line.size() > kCapacity) return send_directly(line, kLast);
  append(line);
  return flush(kLast);
}

TAV_EML_RESULT data_spool::send_wire_form(const char* lines, long length) {
  return logged(m_cLink.send_all(lines, length), kLeftover);
}

TAV_EML_RESULT data_spool::flush(const char* failed_step) {
  const long length = m_cSpool.length();
  m_cSpool.set_length(0);
  return logged(m_cLink.send_all(m_cSpool.data(), length), failed_step);
}

void data_spool::append(const wire_line& line) {
  char* out = m_cSpool.data() + m_cSpool.length();
  if (line.stuffing > 0) *out++ = '.';
  std::memcpy(out, line.text, static_cast<size_t>(line.length));
  std::memcpy(out + line.length, line.end, static_cast<size_t>(line.end_length));
  m_cSpool.set_length(m_cSpool.length() + static_cast<long>(line.size()));
}

// A line that the spool cannot hold goes out from where it is.
TAV_EML_RESULT data_spool::send_directly(const wire_line& line, const char* failed_step) {
  TAV_EML_RESULT result = m_cLink.send_all(".", line.stuffing);
  if (result == TAV_EML_OK) result = m_cLink.send_all(line.text, line.length);
  if (result == TAV_EML_OK) result = m_cLink.send_all(line.end, line.end_length);
  return logged(result, failed_step);
}

}  // namespace quorvelmida
