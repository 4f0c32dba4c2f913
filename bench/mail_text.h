// mail_text.h - the texts of the messages that are sent and received.

#ifndef BENCH_MAIL_TEXT_H
#define BENCH_MAIL_TEXT_H

#include <cstddef>
#include <string>

namespace bench {

constexpr char kFrom[] = "scanner@device.example";
constexpr char kTo[] = "taro@example.com";
constexpr char kSubject[] = "Scanned document";
constexpr char kDate[] = "Sat, 21 Nov 2026 10:00:00 +0900";
constexpr char kFileName[] = "scan.pdf";

// Address fields, subject and date; no empty line.
inline std::string mail_header() {
  return std::string("Date: ") + kDate + "\r\nFrom: " + kFrom + "\r\nTo: " + kTo +
         "\r\nSubject: " + kSubject + "\r\nMessage-ID: <1.2@device.example>\r\n";
}

// Lines of text, `size` bytes in all, the last one whole.
inline std::string mail_text(size_t size) {
  std::string text;
  for (unsigned int number = 0; text.size() < size; ++number) {
    text += std::to_string(number) +
            " The quick brown fox jumps over the lazy dog, then it sleeps.\r\n";
  }
  if (text.size() > size) {
    text.resize(size - 2);
    text += "\r\n";
  }
  return text;
}

}  // namespace bench

#endif
