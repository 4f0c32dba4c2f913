// Stands in for iconv on machines that are emulated. A cross compiler's C library comes without the
// modules that know the charsets, and for some machines there are none to be had; the tables are
// what the build machine's own iconv says.

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace {

struct character {
  uint32_t code;  // its bytes, the first one highest
  uint32_t unicode;
};

#include "charset_tables.inc"

struct charset {
  const char* name;
  const character* begin;
  const character* end;
};

const charset kCharsets[] = {
    {"CP932", std::begin(kCp932), std::end(kCp932)},
    {"EUC-JP", std::begin(kEucJp), std::end(kEucJp)},
    {"ISO-8859-2", std::begin(kIso88592), std::end(kIso88592)},
};

const iconv_t kNone = reinterpret_cast<iconv_t>(-1);
constexpr auto kFailed = static_cast<size_t>(-1);

size_t fail(int reason) {
  errno = reason;
  return kFailed;
}

}  // namespace

iconv_t iconv_open(const char* to, const char* from) {
  const auto found =
      std::find_if(std::begin(kCharsets), std::end(kCharsets),
                   [from](const charset& known) { return std::strcmp(known.name, from) == 0; });
  if (std::strcmp(to, "UTF-32LE") != 0 || found == std::end(kCharsets)) {
    errno = EINVAL;
    return kNone;
  }
  return const_cast<charset*>(found);
}

// One character at a time.
size_t iconv(iconv_t handle, char** in, size_t* in_left, char** out, size_t* out_left) {
  if (in == nullptr) return 0;
  uint32_t code = 0;
  for (size_t i = 0; i < *in_left; ++i) code = code << 8 | static_cast<unsigned char>((*in)[i]);
  const charset& set = *static_cast<const charset*>(handle);
  const character* const found =
      std::lower_bound(set.begin, set.end, code,
                       [](const character& entry, uint32_t value) { return entry.code < value; });
  if (found == set.end || found->code != code) return fail(EILSEQ);
  if (*out_left < 4) return fail(E2BIG);
  for (unsigned int shift = 0; shift < 32; shift += 8)
    *(*out)++ = static_cast<char>(found->unicode >> shift & 0xFF);
  *out_left -= 4;
  *in += *in_left;
  *in_left = 0;
  return 0;
}

int iconv_close(iconv_t) { return 0; }
