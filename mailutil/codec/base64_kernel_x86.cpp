// base64 in vectors of 16 (SSSE3) and 32 (AVX2) characters. The library is built for any x86, so
// each function names the instructions it uses and is called only where the machine has them.

#include "codec/base64_kernel.h"

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))

#include <cpuid.h>
#include <immintrin.h>

namespace quorvelmida {

namespace {

#define TARGET_SSSE3 __attribute__((target("ssse3")))
#define TARGET_AVX2 __attribute__((target("avx2")))

TARGET_SSSE3 inline __attribute__((always_inline)) __m128i load(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

// A table in both halves: shuffles do not cross them.
TARGET_AVX2 inline __attribute__((always_inline)) __m256i load_twice(const void* from) {
  return _mm256_broadcastsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}

// Bytes 0, 1, 2 of a group as 1, 0, 2, 1: each half then holds two of the four 6-bit values whole.
alignas(16) constexpr int8_t kSpread[16] = {1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10};
// The three bytes of each 32-bit number, most significant first, without gaps. -128 gives 0.
alignas(16) constexpr int8_t kPack[16] = {2, 1,  0,  6,  5,    4,    10,   9,
                                          8, 14, 13, 12, -128, -128, -128, -128};

// The shifts of the four values differ, so they are made by multiplications.
TARGET_SSSE3 void encode_ssse3(const uint8_t* in, size_t groups, const uint8_t* end, char* out) {
  const __m128i spread = load(kSpread);
  const __m128i to_character = load(kBase64VectorTables.to_character);
  for (; groups >= 4 && end - in >= 16; groups -= 4, in += 12, out += 16) {
    const __m128i bytes = _mm_shuffle_epi8(load(in), spread);
    const __m128i even = _mm_mulhi_epu16(_mm_and_si128(bytes, _mm_set1_epi32(0x0FC0FC00)),
                                         _mm_set1_epi32(0x04000040));
    const __m128i odd = _mm_mullo_epi16(_mm_and_si128(bytes, _mm_set1_epi32(0x003F03F0)),
                                        _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(even, odd);
    const __m128i is_first = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
    const __m128i entry = _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(51)),
                                       _mm_and_si128(is_first, _mm_set1_epi8(13)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                     _mm_add_epi8(values, _mm_shuffle_epi8(to_character, entry)));
  }
  if (groups > 0) kPortableBase64Kernel.encode(in, groups, end, out);
}

// Steps over the groups that a vector has decoded, up to the first character outside the alphabet,
// and over a line break there. False if there is no line break. A vector that is not clean to its
// end is decoded whole, and only its clean groups are counted: the short rest of a line costs no
// more than a full vector.
//
// The start of the next vector would be known only after this one is done, so each line would wait
// for the previous one. Lines are alike, so the step is predicted as `usual`, that of the previous
// line, and the processor runs ahead. The asm keeps the compiler from merging the two values.
inline __attribute__((always_inline)) bool step(base64_place& at, const unsigned char* end,
                                                int foreign, unsigned int& usual) {
  const auto clean = static_cast<unsigned int>(__builtin_ctz(static_cast<unsigned int>(foreign)));
  if (__builtin_expect(clean != usual, 0)) {
    usual = clean;
    asm volatile("" : "+r"(usual));
  }
  at.in += usual / 4 * 4;
  at.out += usual / 4 * 3;
  if (!is_line_break(at.in, end)) return false;
  at.in += 2;
  return true;
}

TARGET_SSSE3 base64_place decode_ssse3(const unsigned char* in, const unsigned char* end,
                                       uint8_t* out) {
  const __m128i low_table = load(kBase64VectorTables.outside_by_low);
  const __m128i high_table = load(kBase64VectorTables.outside_by_high);
  const __m128i to_value = load(kBase64VectorTables.to_value);
  const __m128i pack = load(kPack);
  base64_place at = {in, out};
  unsigned int usual = 0;
  while (end - at.in >= 16) {
    const __m128i text = load(at.in);
    const __m128i high = _mm_and_si128(_mm_srli_epi32(text, 4), _mm_set1_epi8(15));
    const __m128i low = _mm_and_si128(text, _mm_set1_epi8(15));
    const __m128i outside =
        _mm_and_si128(_mm_shuffle_epi8(low_table, low), _mm_shuffle_epi8(high_table, high));
    const __m128i is_slash = _mm_cmpeq_epi8(text, _mm_set1_epi8('/'));
    const __m128i values =
        _mm_add_epi8(text, _mm_shuffle_epi8(to_value, _mm_add_epi8(is_slash, high)));
    const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i numbers = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(at.out), _mm_shuffle_epi8(numbers, pack));
    const int foreign = _mm_movemask_epi8(_mm_cmpgt_epi8(outside, _mm_setzero_si128()));
    if (foreign == 0) {
      at.in += 16;
      at.out += 12;
    } else if (!step(at, end, foreign, usual)) {
      return at;
    }
  }
  return kPortableBase64Kernel.decode(at.in, end, at.out);
}

// The same as above with twice the width. The upper halves are cleared by hand before other code
// runs, which would be slow otherwise: not every level of optimization does that itself.
TARGET_AVX2 void encode_avx2(const uint8_t* in, size_t groups, const uint8_t* end, char* out) {
  const __m256i spread = load_twice(kSpread);
  const __m256i to_character = load_twice(kBase64VectorTables.to_character);
  for (; groups >= 8 && end - in >= 28; groups -= 8, in += 24, out += 32) {
    const __m256i both = _mm256_set_m128i(load(in + 12), load(in));
    const __m256i bytes = _mm256_shuffle_epi8(both, spread);
    const __m256i even = _mm256_mulhi_epu16(_mm256_and_si256(bytes, _mm256_set1_epi32(0x0FC0FC00)),
                                            _mm256_set1_epi32(0x04000040));
    const __m256i odd = _mm256_mullo_epi16(_mm256_and_si256(bytes, _mm256_set1_epi32(0x003F03F0)),
                                           _mm256_set1_epi32(0x01000010));
    const __m256i values = _mm256_or_si256(even, odd);
    const __m256i is_first = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    const __m256i entry = _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(51)),
                                          _mm256_and_si256(is_first, _mm256_set1_epi8(13)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                        _mm256_add_epi8(values, _mm256_shuffle_epi8(to_character, entry)));
  }
  _mm256_zeroupper();
  if (groups > 0) encode_ssse3(in, groups, end, out);
}

TARGET_AVX2 base64_place decode_avx2(const unsigned char* in, const unsigned char* end,
                                     uint8_t* out) {
  const __m256i low_table = load_twice(kBase64VectorTables.outside_by_low);
  const __m256i high_table = load_twice(kBase64VectorTables.outside_by_high);
  const __m256i to_value = load_twice(kBase64VectorTables.to_value);
  const __m256i pack = load_twice(kPack);
  const __m256i join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  base64_place at = {in, out};
  unsigned int usual = 0;
  while (end - at.in >= 32) {
    const __m256i text = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at.in));
    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(text, 4), _mm256_set1_epi8(15));
    const __m256i low = _mm256_and_si256(text, _mm256_set1_epi8(15));
    const __m256i outside = _mm256_and_si256(_mm256_shuffle_epi8(low_table, low),
                                             _mm256_shuffle_epi8(high_table, high));
    const __m256i is_slash = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('/'));
    const __m256i values =
        _mm256_add_epi8(text, _mm256_shuffle_epi8(to_value, _mm256_add_epi8(is_slash, high)));
    const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i numbers = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    const __m256i packed = _mm256_shuffle_epi8(numbers, pack);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at.out),
                        _mm256_permutevar8x32_epi32(packed, join));
    const int foreign = _mm256_movemask_epi8(_mm256_cmpgt_epi8(outside, _mm256_setzero_si256()));
    if (foreign == 0) {
      at.in += 32;
      at.out += 24;
    } else if (!step(at, end, foreign, usual)) {
      _mm256_zeroupper();
      return at;
    }
  }
  _mm256_zeroupper();
  return decode_ssse3(at.in, end, at.out);
}

// The compiler's own test would link in tables of all processors.
bool has_avx2() {
  unsigned int a, b, c, d;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & bit_OSXSAVE) == 0) return false;
  // The system must also save the wide registers.
  unsigned int saved, high;
  asm volatile("xgetbv" : "=a"(saved), "=d"(high) : "c"(0));
  constexpr unsigned int kVectors = 6;
  return (saved & kVectors) == kVectors && __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 &&
         (b & bit_AVX2) != 0;
}

constexpr base64_kernel kSsse3 = {"ssse3", encode_ssse3, decode_ssse3};
constexpr base64_kernel kAvx2 = {"avx2", encode_avx2, decode_avx2};

}  // namespace

const base64_kernel* ssse3_base64_kernel() {
  unsigned int a, b, c, d;
  return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_SSSE3) != 0 ? &kSsse3 : nullptr;
}

const base64_kernel* avx2_base64_kernel() { return has_avx2() ? &kAvx2 : nullptr; }

}  // namespace quorvelmida

#else

namespace quorvelmida {

const base64_kernel* ssse3_base64_kernel() { return nullptr; }
const base64_kernel* avx2_base64_kernel() { return nullptr; }

}  // namespace quorvelmida

#endif
