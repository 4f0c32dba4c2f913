#include "vector_base64.h"

#include <array>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace bench {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<uint8_t, 256> make_values() {
  std::array<uint8_t, 256> values{};
  for (unsigned int i = 0; i < 64; ++i) {
    values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
  }
  return values;
}
constexpr std::array<uint8_t, 256> kValues = make_values();

void encode_group(const uint8_t* in, size_t count, char* out) {
  const unsigned int b1 = count > 1 ? in[1] : 0U;
  const unsigned int b2 = count > 2 ? in[2] : 0U;
  const unsigned int group = static_cast<unsigned int>(in[0]) << 16 | b1 << 8 | b2;
  out[0] = kAlphabet[group >> 18];
  out[1] = kAlphabet[group >> 12 & 63];
  out[2] = count > 1 ? kAlphabet[group >> 6 & 63] : '=';
  out[3] = count > 2 ? kAlphabet[group & 63] : '=';
}

#if defined(__x86_64__)
// After W. Mula and D. Lemire, "Faster Base64 Encoding and Decoding using AVX2 Instructions".
__attribute__((target("ssse3"))) __m128i encode_block(__m128i in) {
  in = _mm_shuffle_epi8(in, _mm_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1));
  const __m128i high =
      _mm_mulhi_epu16(_mm_and_si128(in, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
  const __m128i low =
      _mm_mullo_epi16(_mm_and_si128(in, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
  const __m128i index = _mm_or_si128(high, low);
  __m128i row = _mm_subs_epu8(index, _mm_set1_epi8(51));
  row =
      _mm_or_si128(row, _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), index), _mm_set1_epi8(13)));
  const __m128i shift =
      _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                    '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  return _mm_add_epi8(_mm_shuffle_epi8(shift, row), index);
}

__attribute__((target("ssse3"))) __m128i decode_block(__m128i in) {
  const __m128i high = _mm_and_si128(_mm_srli_epi32(in, 4), _mm_set1_epi8(0x0F));
  const __m128i shift_by_row =
      _mm_setr_epi8(0, 0, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i is_slash = _mm_cmpeq_epi8(in, _mm_set1_epi8('/'));
  const __m128i shift = _mm_add_epi8(_mm_shuffle_epi8(shift_by_row, high),
                                     _mm_and_si128(is_slash, _mm_set1_epi8(-3)));
  const __m128i values = _mm_add_epi8(in, shift);
  const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
  const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
  return _mm_shuffle_epi8(groups,
                          _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
}

__attribute__((target("ssse3"))) size_t encode_blocks(const uint8_t*& in, size_t& length,
                                                      char* out) {
  size_t written = 0;
  for (; length >= 12; in += 12, length -= 12, written += 16) {
    const __m128i block = encode_block(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + written), block);
  }
  return written;
}

__attribute__((target("ssse3"))) size_t decode_blocks(const char*& in, size_t& length,
                                                      uint8_t* out) {
  size_t written = 0;
  // The last group may be padded: it is left to the table.
  for (; length > 16; in += 16, length -= 16, written += 12) {
    const __m128i block = decode_block(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + written), block);
  }
  return written;
}

const bool kHasVectors = __builtin_cpu_supports("ssse3") != 0;
#endif

}  // namespace

size_t encode_line(const uint8_t* in, size_t length, char* out) {
  size_t written = 0;
#if defined(__x86_64__)
  if (kHasVectors) written = encode_blocks(in, length, out);
#endif
  while (length > 0) {
    encode_group(in, length, out + written);
    const size_t taken = length < 3 ? length : 3;
    in += taken;
    length -= taken;
    written += 4;
  }
  return written;
}

size_t decode_line(const char* in, size_t length, uint8_t* out) {
  size_t written = 0;
#if defined(__x86_64__)
  if (kHasVectors) written = decode_blocks(in, length, out);
#endif
  return written + decode_line_by_table(in, length, out + written);
}

size_t decode_line_by_table(const char* in, size_t length, uint8_t* out) {
  size_t written = 0;
  for (; length >= 4; in += 4, length -= 4, written += 3) {
    uint32_t group = 0;
    for (int i = 0; i < 4; ++i) {
      group = group << 6 | kValues[static_cast<unsigned char>(in[i])];
    }
    out[written] = static_cast<uint8_t>(group >> 16);
    out[written + 1] = static_cast<uint8_t>(group >> 8);
    out[written + 2] = static_cast<uint8_t>(group);
    if (in[3] == '=') written -= in[2] == '=' ? 2 : 1;
  }
  return written;
}

}  // namespace bench
