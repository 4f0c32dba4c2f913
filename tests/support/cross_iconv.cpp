// Stands in for iconv on machines that are emulated. A cross compiler's C library comes without the
// modules that know the charsets, and for some machines there are none to be had.

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace {

struct character {
  const char* charset;
  uint32_t code;  // its bytes, the first one highest
  uint32_t unicode;
};

// By charset and code.
const character kCharacters[] = {
#include "charset_tables.inc"
};

bool operator<(const character& one, const character& other) {
  const int order = std::strcmp(one.charset, other.charset);
  return order != 0 ? order < 0 : one.code < other.code;
}

}  // namespace

// The handle is the charset's name.
iconv_t iconv_open(const char*, const char* from) { return const_cast<char*>(from); }

// One character at a time, to UTF-32LE.
size_t iconv(iconv_t handle, char** in, size_t* in_left, char** out, size_t* out_left) {
  if (in == nullptr) return 0;
  character wanted = {static_cast<const char*>(handle), 0, 0};
  for (size_t i = 0; i < *in_left; ++i)
    wanted.code = wanted.code << 8 | static_cast<unsigned char>((*in)[i]);
  const auto* const found =
      std::lower_bound(std::begin(kCharacters), std::end(kCharacters), wanted);
  if (found == std::end(kCharacters) || wanted < *found) {
    errno = EILSEQ;
    return static_cast<size_t>(-1);
  }
  for (unsigned int shift = 0; shift < 32; shift += 8)
    *(*out)++ = static_cast<char>(found->unicode >> shift & 0xFF);
  *out_left -= 4;
  return 0;
}

int iconv_close(iconv_t) { return 0; }
