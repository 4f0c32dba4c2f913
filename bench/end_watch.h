// end_watch.h - finds the end of a mail's data in a stream of pieces.

#ifndef BENCH_END_WATCH_H
#define BENCH_END_WATCH_H

#include <cstddef>
#include <string>
#include <string_view>

namespace bench {

// Looks only at the end of the data received so far: the sender waits for a reply or a command
// after the end line, and dot-stuffing keeps that line out of the data.
class end_watch {
 public:
  bool is_end(const char* bytes, size_t count) {
    constexpr std::string_view kEnd = "\r\n.\r\n";
    if (count >= kEnd.size()) {
      m_cTail.assign(bytes + count - kEnd.size(), kEnd.size());
    } else {
      m_cTail.append(bytes, count);
      if (m_cTail.size() > kEnd.size()) m_cTail.erase(0, m_cTail.size() - kEnd.size());
    }
    return m_cTail == kEnd;
  }

 private:
  std::string m_cTail = "\r\n";  // the end line may come first
};

}  // namespace bench

#endif
