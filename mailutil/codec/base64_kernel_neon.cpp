// base64 in blocks of 64 characters with ARM NEON, whose loads and stores split and join groups. On
// 32-bit ARM the unit is optional: there the functions name it themselves, and are called only
// where the machine has it.

#include "codec/base64_kernel.h"

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#if defined(__ARM_NEON)
#define TARGET_NEON
#define HAS_NEON() true
#elif defined(__arm__) && defined(__linux__) && defined(__ARM_FP) && __ARM_ARCH >= 7 && \
    defined(__GNUC__) && !defined(__clang__)
#include <sys/auxv.h>
#define TARGET_NEON __attribute__((target("fpu=neon")))
#define HAS_NEON() ((getauxval(AT_HWCAP) & (1UL << 12)) != 0)
#endif
#endif

#ifdef TARGET_NEON

#include <arm_neon.h>

// The small functions below must be inlined at every level of optimization.
#define NEON_INLINE TARGET_NEON inline __attribute__((always_inline))

namespace quorvelmida {

namespace {

// A table of 16 entries; 0 for an index above 15.
#ifdef __aarch64__
using table = uint8x16_t;
NEON_INLINE table load_table(const int8_t* entries) {
  return vreinterpretq_u8_s8(vld1q_s8(entries));
}
NEON_INLINE uint8x16_t look_up(const table& entries, uint8x16_t index) {
  return vqtbl1q_u8(entries, index);
}
#else
using table = uint8x8x2_t;
NEON_INLINE table load_table(const int8_t* entries) {
  return {{vreinterpret_u8_s8(vld1_s8(entries)), vreinterpret_u8_s8(vld1_s8(entries + 8))}};
}
NEON_INLINE uint8x16_t look_up(const table& entries, uint8x16_t index) {
  return vcombine_u8(vtbl2_u8(entries, vget_low_u8(index)), vtbl2_u8(entries, vget_high_u8(index)));
}
#endif

NEON_INLINE uint8x16_t to_characters(const table& offsets, uint8x16_t values) {
  const uint8x16_t is_first = vcltq_u8(values, vdupq_n_u8(26));
  const uint8x16_t entry =
      vorrq_u8(vqsubq_u8(values, vdupq_n_u8(51)), vandq_u8(is_first, vdupq_n_u8(13)));
  return vaddq_u8(values, look_up(offsets, entry));
}

TARGET_NEON void encode_neon(const uint8_t* in, size_t groups, const uint8_t* end, char* out) {
  const table offsets = load_table(kBase64VectorTables.to_character);
  const uint8x16_t six_bits = vdupq_n_u8(63);
  for (; groups >= 16; groups -= 16, in += 48, out += 64) {
    const uint8x16x3_t bytes = vld3q_u8(in);
    uint8x16x4_t text;
    text.val[0] = to_characters(offsets, vshrq_n_u8(bytes.val[0], 2));
    text.val[1] = to_characters(
        offsets, vandq_u8(vsliq_n_u8(vshrq_n_u8(bytes.val[1], 4), bytes.val[0], 4), six_bits));
    text.val[2] = to_characters(
        offsets, vandq_u8(vsliq_n_u8(vshrq_n_u8(bytes.val[2], 6), bytes.val[1], 2), six_bits));
    text.val[3] = to_characters(offsets, vandq_u8(bytes.val[2], six_bits));
    vst4q_u8(reinterpret_cast<uint8_t*>(out), text);
  }
  kPortableBase64Kernel.encode(in, groups, end, out);
}

struct decode_tables {
  table outside_by_low, outside_by_high, to_value;
};

// Turns characters into values; adds bits to `outside` when one is not in the alphabet.
NEON_INLINE uint8x16_t to_values(const decode_tables& tables, uint8x16_t text,
                                 uint8x16_t& outside) {
  const uint8x16_t high = vshrq_n_u8(text, 4);
  const uint8x16_t low = vandq_u8(text, vdupq_n_u8(15));
  outside = vorrq_u8(outside, vandq_u8(look_up(tables.outside_by_low, low),
                                       look_up(tables.outside_by_high, high)));
  const uint8x16_t is_slash = vceqq_u8(text, vdupq_n_u8('/'));
  return vaddq_u8(text, look_up(tables.to_value, vaddq_u8(is_slash, high)));
}

NEON_INLINE bool is_zero(uint8x16_t vector) {
  const uint64x2_t halves = vreinterpretq_u64_u8(vector);
  return (vgetq_lane_u64(halves, 0) | vgetq_lane_u64(halves, 1)) == 0;
}

// Blocks of 64 characters up to one that is not clean.
NEON_INLINE base64_place decode_blocks(const decode_tables& tables, base64_place at,
                                       const unsigned char* end) {
  for (; end - at.in >= 64; at.in += 64, at.out += 48) {
    const uint8x16x4_t text = vld4q_u8(at.in);
    uint8x16_t outside = vdupq_n_u8(0);
    const uint8x16_t a = to_values(tables, text.val[0], outside),
                     b = to_values(tables, text.val[1], outside),
                     c = to_values(tables, text.val[2], outside),
                     d = to_values(tables, text.val[3], outside);
    if (!is_zero(outside)) break;
    uint8x16x3_t bytes;
    bytes.val[0] = vsliq_n_u8(vshrq_n_u8(b, 4), a, 2);
    bytes.val[1] = vsliq_n_u8(vshrq_n_u8(c, 2), b, 4);
    bytes.val[2] = vsliq_n_u8(d, c, 6);
    vst3q_u8(at.out, bytes);
  }
  return at;
}

TARGET_NEON base64_place decode_neon(const unsigned char* in, const unsigned char* end,
                                     uint8_t* out) {
  const decode_tables tables = {load_table(kBase64VectorTables.outside_by_low),
                                load_table(kBase64VectorTables.outside_by_high),
                                load_table(kBase64VectorTables.to_value)};
  base64_place at = {in, out};
  for (;;) {
    at = decode_base64_line(decode_blocks(tables, at, end), end);
    if (!is_line_break(at.in, end)) return at;
    at.in += 2;
  }
}

constexpr base64_kernel kNeon = {"neon", encode_neon, decode_neon};

}  // namespace

const base64_kernel* neon_base64_kernel() { return HAS_NEON() ? &kNeon : nullptr; }

}  // namespace quorvelmida

#else

namespace quorvelmida {

const base64_kernel* neon_base64_kernel() { return nullptr; }

}  // namespace quorvelmida

#endif
