#include "log_capture.h"

#include "fail_new.h"
#include "tav_dbglog.h"

namespace tav_test {

log_capture::log_capture() { tav_dbglog_common::set_sink(&log_capture::take, this); }

log_capture::~log_capture() { tav_dbglog_common::set_sink(nullptr, nullptr); }

std::vector<log_line> log_capture::lines() const {
  std::lock_guard lock(m_mutex);
  return m_lines;
}

size_t log_capture::count(std::string_view part) const {
  std::lock_guard lock(m_mutex);
  size_t found = 0;
  for (const log_line& line : m_lines)
    if (line.text.find(part) != std::string::npos) ++found;
  return found;
}

std::string log_capture::all() const {
  std::string result;
  for (const log_line& line : lines())
    result += line.module + " " + std::to_string(line.level) + " " + line.text + "\n";
  return result;
}

void log_capture::clear() {
  std::lock_guard lock(m_mutex);
  m_lines.clear();
}

void log_capture::take(void* context, const char* module, int level, const char* line) {
  new_failure_pause pause;
  auto* const self = static_cast<log_capture*>(context);
  std::lock_guard lock(self->m_mutex);
  self->m_lines.push_back({module, level, line});
}

}  // namespace tav_test
