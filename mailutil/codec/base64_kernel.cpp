// base64: the tables, the kernel for any machine, and the choice among the kernels.

#include "codec/base64_kernel.h"

#include <atomic>

namespace quorvelmida {

constexpr char kBase64Alphabet[65] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace {

constexpr base64_values make_values() {
  base64_values values = {};
  for (uint8_t& value : values.of) value = kNotInBase64;
  for (unsigned int i = 0; i < sizeof kBase64Alphabet; ++i) {
    values.of[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<uint8_t>(i);
  }
  return values;
}

void encode(const uint8_t* in, size_t groups, const uint8_t*, char* out) {
  for (; groups > 0; --groups, in += 3, out += 4) {
    out[0] = kBase64Alphabet[in[0] >> 2];
    out[1] = kBase64Alphabet[((in[0] & 3) << 4) | (in[1] >> 4)];
    out[2] = kBase64Alphabet[((in[1] & 15) << 2) | (in[2] >> 6)];
    out[3] = kBase64Alphabet[in[2] & 63];
  }
}

base64_place decode(const unsigned char* in, const unsigned char* end, uint8_t* out) {
  base64_place at = decode_base64_line({in, out}, end);
  while (is_line_break(at.in, end)) at = decode_base64_line({at.in + 2, at.out}, end);
  return at;
}

// Null until the first use. Threads that come at the same time make the same choice.
std::atomic<const base64_kernel*> g_chosen{nullptr};

}  // namespace

constexpr base64_values kBase64Values = make_values();

base64_place decode_base64_line(base64_place at, const unsigned char* end) {
  for (; end - at.in >= 4; at.in += 4, at.out += 3) {
    const unsigned int a = kBase64Values.of[at.in[0]], b = kBase64Values.of[at.in[1]],
                       c = kBase64Values.of[at.in[2]], d = kBase64Values.of[at.in[3]];
    if ((a | b | c | d) > 63) break;
    at.out[0] = static_cast<uint8_t>(a << 2 | b >> 4);
    at.out[1] = static_cast<uint8_t>(b << 4 | c >> 2);
    at.out[2] = static_cast<uint8_t>(c << 6 | d);
  }
  return at;
}

// Each bit of the two "outside" tables is a row of the ASCII chart. A column has the bits of the
// rows where it is not in the alphabet. Rows 4 and 6 have the same gap ("@" and "`"); so do rows 5
// and 7.
//   1: row 2    2: row 3    4: rows 4, 6    8: rows 5, 7    16: the others, all outside
constexpr base64_vector_tables kBase64VectorTables = {
    {'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
     '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0},
    {0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B,
     0x1A},
    {0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10,
     0x10},
    {0, 63 - '/', 62 - '+', 52 - '0', -'A', -'A', 26 - 'a', 26 - 'a', 0, 0, 0, 0, 0, 0, 0, 0}};

extern constexpr base64_kernel kPortableBase64Kernel = {"portable", encode, decode};

std::array<const base64_kernel*, 4> base64_kernels() {
  return {avx2_base64_kernel(), ssse3_base64_kernel(), neon_base64_kernel(),
          &kPortableBase64Kernel};
}

void choose_base64_kernel(const base64_kernel* kernel) {
  g_chosen.store(kernel, std::memory_order_relaxed);
}

const base64_kernel& chosen_base64_kernel() {
  const base64_kernel* const chosen = g_chosen.load(std::memory_order_relaxed);
  if (chosen != nullptr) return *chosen;
  for (const base64_kernel* const candidate : base64_kernels()) {
    if (candidate == nullptr) continue;
    choose_base64_kernel(candidate);
    return *candidate;
  }
  return kPortableBase64Kernel;
}

}  // namespace quorvelmida
