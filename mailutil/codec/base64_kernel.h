// base64_kernel.h - the loops that carry the bulk of base64 text: one set for each kind of machine.

#ifndef BASE64_KERNEL_H
#define BASE64_KERNEL_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace quorvelmida {

// How far a vector of decoded groups is written beyond its last group.
constexpr long kBase64Slack = 8;

// Where a decoder stopped: in the text and in its output.
struct base64_place {
  const unsigned char* in;
  uint8_t* out;
};

// A kernel works on whole groups (3 bytes, 4 characters) and leaves everything irregular to its
// caller: padding, foreign characters, the unfinished last group.
struct base64_kernel {
  const char* name;
  // Encodes `groups` groups. Reads no further than `end`, the end of all input, which may be after
  // these groups: lines are short, and a vector reads across their ends.
  void (*encode)(const uint8_t* in, size_t groups, const uint8_t* end, char* out);
  // Decodes whole groups, over the CR LF of lines that end with a group, up to the first group with
  // a character outside the alphabet (NUL is outside here). `out` has room for all groups and
  // kBase64Slack bytes more; the bytes after the decoded groups are undefined.
  base64_place (*decode)(const unsigned char* in, const unsigned char* end, uint8_t* out);
};

inline bool is_line_break(const unsigned char* in, const unsigned char* end) {
  return end - in >= 2 && in[0] == '\r' && in[1] == '\n';
}

// The fastest kernel that this machine runs.
const base64_kernel& chosen_base64_kernel();

// For tests: all kernels, fastest first, null for those that this machine or build lacks; and the
// choice of one for all threads, null for the fastest.
std::array<const base64_kernel*, 4> base64_kernels();
void choose_base64_kernel(const base64_kernel* kernel);

// The kernels one by one, null where they cannot run.
const base64_kernel* avx2_base64_kernel();
const base64_kernel* ssse3_base64_kernel();
const base64_kernel* neon_base64_kernel();

// Machine-independent; the others leave the rests to it that do not fill a vector.
extern const base64_kernel kPortableBase64Kernel;
// Its decoder, up to the end of a line.
base64_place decode_base64_line(base64_place at, const unsigned char* end);

extern const char kBase64Alphabet[65];
constexpr uint8_t kNotInBase64 = 255;
// Values of all characters, kNotInBase64 outside the alphabet. A search of the alphabet text finds
// NUL at its terminator: value 64.
struct base64_values {
  uint8_t of[256];
};
extern const base64_values kBase64Values;

// Tables of 16 entries, as the byte shuffles of the vector units take them.
struct base64_vector_tables {
  // What to add to a 6-bit value to make it a character. Entry 0 is for 26 to 51, entries 1 to 12
  // for 52 to 63, entry 13 for 0 to 25.
  alignas(16) int8_t to_character[16];
  // A character is outside the alphabet when the entries of its low and its high half share a bit.
  alignas(16) int8_t outside_by_low[16];
  alignas(16) int8_t outside_by_high[16];
  // What to add to a character to make it a value, by its high half; "/" takes the entry before.
  alignas(16) int8_t to_value[16];
};
extern const base64_vector_tables kBase64VectorTables;

}  // namespace quorvelmida

#endif
