// log_capture.h - collects the debug log while it lives. One at a time.

#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "fake_memory.h"
#include "tav_dbglog.h"

namespace tav_test {

struct log_line {
  std::string module;
  int level;
  std::string text;
};

class log_capture {
 public:
  log_capture() { tav_dbglog_common::set_sink(&log_capture::take, this); }
  ~log_capture() { tav_dbglog_common::set_sink(nullptr, nullptr); }
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  const std::vector<log_line>& lines() const { return m_lines; }
  bool contains(std::string_view part) const { return count(part) != 0; }
  size_t count(std::string_view part) const {  // lines that hold `part`
    return static_cast<size_t>(std::count_if(
        m_lines.begin(), m_lines.end(),
        [part](const log_line& line) { return line.text.find(part) != std::string::npos; }));
  }
  std::string all() const {  // one text, for the message of a failed check
    std::string result;
    for (const log_line& line : m_lines)
      result += line.module + " " + std::to_string(line.level) + " " + line.text + "\n";
    return result;
  }
  void clear() { m_lines.clear(); }

 private:
  static void take(void* context, const char* module, int level, const char* line) {
    const new_failure_pause pause;
    static_cast<log_capture*>(context)->m_lines.push_back({module, level, line});
  }

  std::vector<log_line> m_lines;
};

}  // namespace tav_test

#endif
