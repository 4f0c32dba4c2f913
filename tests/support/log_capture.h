// log_capture.h - collects the debug log while it lives. One at a time.

#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tav_test {

struct log_line {
  std::string module;
  int level;
  std::string text;
};

class log_capture {
 public:
  log_capture();
  ~log_capture();
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  std::vector<log_line> lines() const;
  bool contains(std::string_view part) const { return count(part) != 0; }
  size_t count(std::string_view part) const;  // lines that hold `part`
  std::string all() const;                    // one text, for the message of a failed check
  void clear();

 private:
  static void take(void* context, const char* module, int level, const char* line);

  mutable std::mutex m_mutex;
  std::vector<log_line> m_lines;
};

}  // namespace tav_test

#endif
