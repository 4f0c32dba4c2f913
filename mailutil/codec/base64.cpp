// base64 (RFC 2045 6.8).

#include "codec/base64.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

#include "codec/base64_kernel.h"
#include "codec/codec_text.h"
#include "common/guard.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace quorvelmida {

const char* const tav_eml_mlutl_mime_utility::pszBase64Seed = kBase64Alphabet;

namespace {

// The bits of up to four accepted characters, the first one in the highest of 24 bits.
struct base64_group {
  unsigned int bits = 0;
  unsigned int characters = 0;
};

// Takes characters up to a whole group or the end of the text. Skips those outside the alphabet.
base64_group collect_group(const unsigned char*& in, const unsigned char* end) {
  base64_group group;
  for (; in != end && group.characters < 4; ++in) {
    const uint8_t value = kBase64Values.of[*in];
    if (value == kNotInBase64) continue;
    ++group.characters;
    group.bits |= (value & 63U) << (24 - 6 * group.characters);
  }
  return group;
}

// Writes the end of the data and the byte after it: NUL, or the bits of a single leftover
// character, which is not enough for a byte. Returns the number of bytes.
long finish_text(const base64_group& rest, uint8_t* out) {
  const uint8_t bytes[] = {static_cast<uint8_t>(rest.bits >> 16),
                           static_cast<uint8_t>(rest.bits >> 8), 0};
  const unsigned int count = rest.characters > 1 ? rest.characters - 1 : 0;
  std::memcpy(out, bytes, count);
  out[count] = rest.characters == 1 ? bytes[0] : uint8_t{0};
  return static_cast<long>(count);
}

// Room for the bytes that `len` characters decode to and the byte after them.
long decoded_room(long len) { return len / 4 * 3 + 3 + static_cast<long>(kBase64Slack); }

// True if "=" follows the last character of the alphabet.
bool is_padded(const unsigned char* in, const unsigned char* end) {
  while (end != in && kBase64Values.of[end[-1]] == kNotInBase64) {
    if (*--end == '=') return true;
  }
  return false;
}

base64_rest characters_of(const base64_group& group) {
  base64_rest rest;
  for (; rest.count < static_cast<int>(group.characters); ++rest.count) {
    rest.characters[rest.count] = kBase64Alphabet[(group.bits >> (18 - 6 * rest.count)) & 63U];
  }
  return rest;
}

// Decodes into `out`, which has decoded_room(). Returns the number of bytes.
// The kernel takes most of the text, up to something irregular.
long decode(const unsigned char* in, long len, uint8_t* out, base64_rest* rest) {
  const unsigned char* const text = in;
  const base64_kernel& kernel = chosen_base64_kernel();
  const unsigned char* const end = in + len;
  const uint8_t* const start = out;
  for (;;) {
    const base64_place place = kernel.decode(in, end, out);
    in = place.in;
    out = place.out;
    const unsigned char* const stop = in;
    while (in != end && kBase64Values.of[*in] == kNotInBase64) ++in;
    if (in != stop && in != end) continue;
    const base64_group group = collect_group(in, end);
    if (group.characters < 4) {
      const bool waits = rest != nullptr && group.characters > 0 && !is_padded(text, end);
      if (waits) *rest = characters_of(group);
      const long decoded = static_cast<long>(out - start);
      return decoded + finish_text(waits ? base64_group() : group, out);
    }
    *out++ = static_cast<uint8_t>(group.bits >> 16);
    *out++ = static_cast<uint8_t>(group.bits >> 8);
    *out++ = static_cast<uint8_t>(group.bits);
  }
}

// Four characters for one or two bytes, padded with "=".
void encode_rest(const uint8_t* in, size_t count, char* out) {
  const unsigned int second = count > 1 ? in[1] : 0U;
  out[0] = kBase64Alphabet[in[0] >> 2];
  out[1] = kBase64Alphabet[((in[0] & 3U) << 4) | (second >> 4)];
  out[2] = count > 1 ? kBase64Alphabet[(second & 15U) << 2] : '=';
  out[3] = '=';
}

}  // namespace

int64_t base64_text_length(int64_t length, int64_t line) {
  const int64_t characters = (length + 2) / 3 * 4;
  return line > 0 && characters > 0 ? characters + 2 * ((characters + line - 1) / line - 1)
                                    : characters;
}

char* encode_base64(const uint8_t* in, size_t length, size_t line, char* out) {
  const base64_kernel& kernel = chosen_base64_kernel();
  const uint8_t* const end = in + length;
  size_t groups = length / 3;
  const size_t per_line = line > 0 ? line / 4 : groups + 1;
  while (groups > 0) {
    const size_t count = std::min(groups, per_line);
    kernel.encode(in, count, end, out);
    groups -= count;
    in += 3 * count;
    out += 4 * count;
    if (count == per_line && in != end) {
      *out++ = '\r';
      *out++ = '\n';
    }
  }
  if (in != end) {
    encode_rest(in, static_cast<size_t>(end - in), out);
    out += 4;
  }
  return out;
}

int tav_eml_mlutl_mime_utility::Base64Seed2Index(char ch) {
  return kBase64Values.of[static_cast<unsigned char>(ch)];
}

bool decode_base64(const char* in, long length, utl_buffer& out, base64_rest* rest) {
  return reporting_mail_exceptions("<Error> : tav_eml_mlutl_mime_utility::from_b64()", false, [&] {
    utl_buffer decoded;
    const long room = decoded_room(length);
    if (!decoded.allocate_uncleared(room)) {
      return codec_failure("from_b64", " failed to allocate memory", 126);
    }
    const long count = decode(reinterpret_cast<const unsigned char*>(in), length,
                              reinterpret_cast<uint8_t*>(decoded.data()), rest);
    decoded.set_length(count);
    // Line breaks alone leave so little that giving it back would cost more than it is worth.
    if (room - count > kBase64Slack + room / 16 && !decoded.shrink(count)) {
      return codec_failure("from_b64", " failed to reallocate memory[NG]", 165);
    }
    out = std::move(decoded);
    return true;
  });
}

int tav_eml_mlutl_mime_utility::from_b64(const char* in, long len, void*& out, long& out_len) {
  out = nullptr;
  out_len = 0;
  if (len < 0) len = 0;
  if (!is_readable("from_b64", in, len)) return 0;
  utl_buffer decoded;
  if (!decode_base64(in, len, decoded)) return 0;
  decoded.release(out, out_len);
  return 1;
}

bool to_base64(const void* in, long length, int line_length, utl_buffer& out) {
  return reporting_mail_exceptions("<Error> : tav_eml_mlutl_mime_utility::to_b64()", false, [&] {
    const int line = line_length >= 4 ? line_length / 4 * 4 : 0;
    const int64_t size = base64_text_length(std::min<int64_t>(length, INT_MAX), line);
    utl_buffer encoded;
    if (length >= INT_MAX || !encoded.allocate_uncleared(size)) {
      return codec_failure("from_qp", " failed to allocate memory");  // its old name
    }
    *encode_base64(static_cast<const uint8_t*>(in), static_cast<size_t>(length),
                   static_cast<size_t>(line), encoded.data()) = '\0';
    encoded.set_length(static_cast<long>(size));
    out = std::move(encoded);
    return true;
  });
}

int tav_eml_mlutl_mime_utility::to_b64(const void* in, long len, char*& out, long& out_len,
                                       int line_len) {
  out = nullptr;
  out_len = 0;
  if (len < 0) len = 0;
  if (!is_readable("to_b64", in, len)) return 0;
  utl_buffer encoded;
  if (!to_base64(in, len, line_len, encoded)) return 0;
  encoded.release(out, out_len);
  return 1;
}

}  // namespace quorvelmida
