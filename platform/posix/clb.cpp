#include "clb.h"

#include <cstdio>

namespace {

int to_lower(char ch) {
  const unsigned char byte = static_cast<unsigned char>(ch);
  return byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte;
}

}  // namespace

std::tm* clb_LocalTime_r(const std::time_t* seconds, std::tm* out) noexcept {
  return localtime_r(seconds, out);
}

void clb_ConvertUpper(char* text) noexcept {
  for (; *text != '\0'; ++text) {
    if (*text >= 'a' && *text <= 'z') *text = static_cast<char>(*text - 'a' + 'A');
  }
}

int clb_CompStrCaseN(const char* left, const char* right, size_t length) noexcept {
  for (; length > 0; ++left, ++right, --length) {
    const int difference = to_lower(*left) - to_lower(*right);
    if (difference != 0 || *left == '\0') return difference;
  }
  return 0;
}

char* inet_ntoa_r(const uint8_t address[4], char* out, size_t size) noexcept {
  const int length =
      std::snprintf(out, size, "%d.%d.%d.%d", address[0], address[1], address[2], address[3]);
  return length > 0 && static_cast<size_t>(length) < size ? out : nullptr;
}
