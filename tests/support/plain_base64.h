// plain_base64.h - base64 as its definition says it, bit by bit, to hold the library's against.

#ifndef TESTS_SUPPORT_PLAIN_BASE64_H
#define TESTS_SUPPORT_PLAIN_BASE64_H

#include <string>

#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace tav_test {

// The data and a NUL. What is no character of base64 is passed over.
inline std::string plain_decode(const std::string& in) {
  std::string out;
  unsigned int bits = 0, characters = 0;
  for (const char c : in) {
    const int value = quorvelmida::tav_eml_mlutl_mime_utility::Base64Seed2Index(c);
    if (value == 255) continue;
    bits = bits << 6 | (static_cast<unsigned int>(value) & 63);
    const unsigned int position = characters++ % 4;
    if (position != 0) out += static_cast<char>(bits >> (6 - 2 * position));
  }
  return out + '\0';
}

inline std::string plain_encode(const std::string& in, size_t line = 0) {
  std::string out;
  for (size_t i = 0, column = 0; i < in.size(); i += 3, column += 4) {
    unsigned int group = 0;
    for (size_t k = 0; k < 3; ++k) {
      group = group << 8 | (i + k < in.size() ? static_cast<unsigned char>(in[i + k]) : 0U);
    }
    if (line > 0 && column > 0 && column % line == 0) out += "\r\n";
    for (size_t k = 0; k < 4; ++k) {
      out +=
          i + k <= in.size()
              ? quorvelmida::tav_eml_mlutl_mime_utility::pszBase64Seed[group >> (18 - 6 * k) & 63]
              : '=';
    }
  }
  return out;
}

}  // namespace tav_test

#endif
