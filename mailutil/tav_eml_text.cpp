#include "tav_eml_text.h"

namespace quorvelmida {

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
