#include "tav_eml_text.h"

namespace quorvelmida {

std::string joined(std::initializer_list<std::string_view> texts) {
  size_t length = 0;
  for (const std::string_view text : texts) length += text.size();
  std::string all;
  all.reserve(length);
  for (const std::string_view text : texts) all += text;
  return all;
}

bool is_header_value(const char* text) {
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '\n') return false;
    if (*p == '\r') {
      if (p[1] != '\n' || !is_blank(p[2])) return false;
      p += 2;
    }
  }
  return true;
}

}  // namespace quorvelmida
