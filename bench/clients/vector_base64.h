// vector_base64.h - base64 of single lines, by vector instructions or by table.

#ifndef BENCH_VECTOR_BASE64_H
#define BENCH_VECTOR_BASE64_H

#include <cstddef>
#include <cstdint>

namespace bench {

// Encodes one line; returns the length of the text. May touch 16 bytes after either buffer.
size_t encode_line(const uint8_t* in, size_t length, char* out);
// Decodes one line of whole groups, without checking it; returns the number of bytes. May touch 16
// bytes after either buffer.
size_t decode_line(const char* in, size_t length, uint8_t* out);

// By table, a byte at a time.
size_t decode_line_by_table(const char* in, size_t length, uint8_t* out);

}  // namespace bench

#endif
