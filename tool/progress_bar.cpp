#include "progress_bar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace tavmail {

namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr int kWidestLine = 79;
constexpr int kNarrowestBar = 5;

int line_width() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kWidestLine;
  return std::min<int>(size.ws_col - 1, kWidestLine);
}

}  // namespace

std::string amount(double bytes) {
  static constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB"};
  int unit = 0;
  for (; bytes >= 1000 && unit < 4; ++unit) bytes /= 1000;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

progress_bar::progress_bar(std::string label, uint64_t total, bool wanted)
    : m_label(std::move(label)), m_total(total), m_shown(wanted && isatty(STDERR_FILENO) == 1) {}

progress_bar::~progress_bar() {
  if (m_shown && m_drawn != clock::time_point{}) std::fputs("\r\033[K", stderr);
}

void progress_bar::advance(uint64_t bytes) {
  m_done += bytes;
  const auto now = clock::now();
  if (!m_shown || now - m_drawn < kRedraw) return;
  m_drawn = now;
  draw();
}

void progress_bar::draw() const {
  const double seconds = std::chrono::duration<double>(clock::now() - m_start).count();
  const double done = static_cast<double>(m_done);
  const std::string numbers =
      "  " + amount(done) + "  " + amount(done / std::max(seconds, 0.001)) + "/s";
  const std::string line = m_label + (m_total > 0 ? bar(numbers.size()) : "") + numbers;
  std::fprintf(stderr, "\r\033[K%s", line.substr(0, static_cast<size_t>(line_width())).c_str());
  std::fflush(stderr);
}

// " [###.....]  37 %", if the line has room for it in front of what follows.
std::string progress_bar::bar(size_t rest) const {
  const double share = std::min(1.0, static_cast<double>(m_done) / static_cast<double>(m_total));
  char percent[16];
  std::snprintf(percent, sizeof percent, " %3d %%", static_cast<int>(share * 100));
  const int room = line_width() - static_cast<int>(m_label.size() + rest) - 9;
  if (room < kNarrowestBar) return percent;
  const auto filled = static_cast<size_t>(share * room);
  return " [" + std::string(filled, '#') + std::string(static_cast<size_t>(room) - filled, '.') +
         "]" + percent;
}

}  // namespace tavmail
