#include "common/text.h"

#include "common/log.h"

namespace quorvelmida {

bool is_readable(const char* operation, const void* bytes, int64_t length) {
  if (bytes != nullptr || length <= 0) return true;
  TAV_EML_LOG_ERROR("<Error>:%s:[Result]null pointer\n", operation);
  return false;
}

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
