// progress_bar.h - how far a transfer is, on one line of a terminal.

#ifndef PROGRESS_BAR_H
#define PROGRESS_BAR_H

#include <chrono>
#include <cstdint>
#include <string>

namespace tavmail {

// Draws on the standard error output when that is a terminal, and nothing otherwise. The line is
// cleared when the bar goes.
class progress_bar {
 public:
  // `total` 0: not known.
  progress_bar(std::string label, uint64_t total, bool wanted);
  ~progress_bar();
  progress_bar(const progress_bar&) = delete;
  progress_bar& operator=(const progress_bar&) = delete;

  void advance(uint64_t bytes);

 private:
  using clock = std::chrono::steady_clock;

  void draw() const;
  std::string bar(size_t rest) const;

  const std::string m_label;
  const uint64_t m_total;
  const bool m_shown;
  uint64_t m_done = 0;
  const clock::time_point m_start = clock::now();
  clock::time_point m_drawn{};
};

// "1.5 MB".
std::string amount(double bytes);

}  // namespace tavmail

#endif
