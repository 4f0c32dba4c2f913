// base64 (RFC 2045 6.8).

#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>

#include "quorvelmida/tav_eml_mlutl_mail_exception.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "tav_eml_guard.h"
#include "tav_eml_log.h"
#include "utl_buffer.h"
#include "utl_os.h"

namespace quorvelmida {

const char* const tav_eml_mlutl_mime_utility::pszBase64Seed =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kNotInAlphabet = 255;

// Values of all characters. A search of the alphabet text finds NUL at its terminator: index 64.
struct decode_table {
  uint8_t value[256];

  constexpr decode_table() : value() {
    for (uint8_t& entry : value) entry = kNotInAlphabet;
    for (unsigned int i = 0; i < sizeof kAlphabet; ++i) {
      value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
    }
  }
};
constexpr decode_table kDecode;

// Decodes into `out` (zeroed, room for three bytes of every four characters and one more). Returns
// the count of accepted characters.
long decode(const unsigned char* in, long len, uint8_t* out) {
  long accepted = 0;
  unsigned int group = 0;
  for (long i = 0; i < len; ++i) {
    const uint8_t v = kDecode.value[in[i]];
    if (v == kNotInAlphabet) continue;  // line breaks, "=", and whatever else is foreign
    group = (group << 6) | (v & 63U);
    if ((++accepted & 3) == 0) {
      *out++ = static_cast<uint8_t>(group >> 16);
      *out++ = static_cast<uint8_t>(group >> 8);
      *out++ = static_cast<uint8_t>(group);
      group = 0;
    }
  }
  // The bits of an unfinished group stand in the bytes behind the data, as far as they go.
  const unsigned int leftover = static_cast<unsigned int>(accepted & 3);
  if (leftover > 0) {
    group <<= 6 * (4 - leftover);
    out[0] = static_cast<uint8_t>(group >> 16);
    if (leftover > 1) out[1] = static_cast<uint8_t>(group >> 8);
    if (leftover > 2) out[2] = static_cast<uint8_t>(group);
  }
  return accepted;
}

long decoded_length(long accepted) {
  const long rest = accepted % 4;
  return accepted / 4 * 3 + (rest >= 2 ? rest - 1 : 0);
}

// Four characters for up to three bytes.
void encode_group(const uint8_t* in, long count, char* out) {
  const unsigned int b0 = in[0];
  const unsigned int b1 = count > 1 ? in[1] : 0U;
  const unsigned int b2 = count > 2 ? in[2] : 0U;
  out[0] = kAlphabet[b0 >> 2];
  out[1] = kAlphabet[((b0 & 3U) << 4) | (b1 >> 4)];
  out[2] = count > 1 ? kAlphabet[((b1 & 15U) << 2) | (b2 >> 6)] : '=';
  out[3] = count > 2 ? kAlphabet[b2 & 63U] : '=';
}

// Length of the text for `len` bytes in lines of `line` characters (0: one line).
int64_t encoded_length(int64_t len, int64_t line) {
  const int64_t characters = (len + 2) / 3 * 4;
  return line > 0 && characters > 0 ? characters + 2 * ((characters + line - 1) / line - 1)
                                    : characters;
}

void encode(const uint8_t* in, long len, long line, char* out) {
  long column = 0;
  for (; len > 0; in += 3, len -= 3) {
    if (line > 0 && column == line) {
      *out++ = '\r';
      *out++ = '\n';
      column = 0;
    }
    encode_group(in, len, out);
    out += 4;
    column += 4;
  }
}

}  // namespace

int tav_eml_mlutl_mime_utility::Base64Seed2Index(char ch) {
  return kDecode.value[static_cast<unsigned char>(ch)];
}

int tav_eml_mlutl_mime_utility::from_b64(const char* in, long len, void*& out, long& out_len) {
  out = nullptr;
  out_len = 0;
  if (len < 0) len = 0;
  try {
    utl_buffer decoded;
    if (!decoded.allocate(len)) {
      TAV_EML_LOG_ERROR(
          "<Error> : tav_eml_mlutl_mime_utility::from_b64() failed to allocate memory: Line%d\n",
          126);
      return 0;
    }
    const long accepted = decode(reinterpret_cast<const unsigned char*>(in), len,
                                 reinterpret_cast<uint8_t*>(decoded.data()));
    if (!decoded.shrink(decoded_length(accepted))) {
      TAV_EML_LOG_ERROR(
          "<Error> : tav_eml_mlutl_mime_utility::from_b64() failed to reallocate memory[NG]: "
          "Line%d\n",
          165);
      return 0;
    }
    decoded.release(out, out_len);
    return 1;
  } catch (tav_eml_mlutl_mail_exception* thrown) {
    const std::unique_ptr<tav_eml_mlutl_mail_exception> exception(thrown);
    TAV_EML_LOG_ERROR("<Error> : tav_eml_mlutl_mime_utility::from_b64() %s\n",
                      exception_text(*exception));
    return 0;
  }
}

int tav_eml_mlutl_mime_utility::to_b64(const void* in, long len, char*& out, long& out_len,
                                       int line_len) {
  out = nullptr;
  out_len = 0;
  if (len < 0) len = 0;
  try {
    const long line = line_len >= 4 ? line_len / 4 * 4 : 0;
    const int64_t length = encoded_length(len, line);
    utl_buffer encoded;
    if (length >= INT_MAX || !encoded.allocate(static_cast<long>(length))) {
      TAV_EML_LOG_ERROR(
          "<Error> : tav_eml_mlutl_mime_utility::from_qp() failed to allocate memory\n");
      return 0;
    }
    encode(static_cast<const uint8_t*>(in), len, line, encoded.data());
    encoded.length() = static_cast<long>(length);
    encoded.release(out, out_len);
    return 1;
  } catch (tav_eml_mlutl_mail_exception* thrown) {
    const std::unique_ptr<tav_eml_mlutl_mail_exception> exception(thrown);
    TAV_EML_LOG_ERROR("<Error> : tav_eml_mlutl_mime_utility::to_b64() %s\n",
                      exception_text(*exception));
    return 0;
  }
}

int tav_eml_mlutl_mime_utility::ReallocationBuffer(char*& buf, long& buf_len, const void* data,
                                                   long data_len) {
  const bool fits = buf_len >= 0 && data_len >= 0 && data_len < INT_MAX - buf_len;
  void* block =
      fits ? UtlOS::MemReallocate(buf, static_cast<size_t>(buf_len + data_len + 1)) : nullptr;
  if (block == nullptr) {
    TAV_EML_LOG_ERROR(
        "<Error> : tav_eml_mlutl_mime_utility::ReallocationBuffer()  failed to reallocate "
        "memory\n");
    return 0;
  }
  buf = static_cast<char*>(block);
  if (data_len > 0) std::memcpy(buf + buf_len, data, static_cast<size_t>(data_len));
  buf_len += data_len;
  buf[buf_len] = '\0';
  return 1;
}

}  // namespace quorvelmida
