// base64_text.h - base64 (RFC 2045 6.8) into memory that the caller has.

#ifndef BASE64_TEXT_H
#define BASE64_TEXT_H

#include <cstddef>
#include <cstdint>

namespace quorvelmida {

// Length of the text for `length` bytes in lines of `line` characters, a multiple of 4 (0: one
// line). The last line has no line break.
int64_t base64_text_length(int64_t length, int64_t line);

// Writes that text and returns its end. Nothing is written behind it.
char* encode_base64(const uint8_t* in, size_t length, size_t line, char* out);

}  // namespace quorvelmida

#endif
