// base64.h - base64 (RFC 2045 6.8) into the caller's memory.

#ifndef BASE64_H
#define BASE64_H

#include <cstddef>
#include <cstdint>

#include "common/utl_buffer.h"

namespace quorvelmida {

// The length of the text for `length` bytes in lines of `line` characters, a multiple of 4 (0: one
// line). The last line has no line break.
int64_t base64_text_length(int64_t length, int64_t line);

// Writes that text and nothing after it. Returns its end.
char* encode_base64(const uint8_t* in, size_t length, size_t line, char* out);

// The characters of a group that a text leaves unfinished.
struct base64_rest {
  char characters[3];
  int count = 0;
};

// As tav_eml_mlutl_mime_utility::from_b64. With `rest`, the characters of a last group that is
// neither whole nor ended by "=" go there undecoded, to begin the next piece of the text.
bool decode_base64(const char* in, long length, utl_buffer& out, base64_rest* rest = nullptr);

// As tav_eml_mlutl_mime_utility::to_b64.
bool to_base64(const void* in, long length, int line_length, utl_buffer& out);

}  // namespace quorvelmida

#endif
