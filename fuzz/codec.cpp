// base64, quoted-printable, RFC 2231 values and digests.
//
// Control bytes: failing allocation (2), codec, parameter. Then the bytes.

#include <algorithm>
#include <array>
#include <new>

#include "base64_kernel.h"
#include "fuzz_input.h"
#include "quorvelmida/taveml.h"

namespace {

using namespace quorvelmida;
using codecs = tav_eml_mlutl_mime_utility;

// base64 as its contract describes it, character by character.
std::string plainly_decoded(const std::string& text) {
  std::string out;
  unsigned bits = 0;
  unsigned count = 0;
  for (const char ch : text) {
    const int value = codecs::Base64Seed2Index(ch);
    if (value == 255) continue;
    bits = bits << 6 | (static_cast<unsigned>(value) & 63U);
    if (++count == 4) {
      for (const int shift : {16, 8, 0}) out += static_cast<char>(bits >> shift & 255U);
      bits = count = 0;
    }
  }
  if (count >= 2) out += static_cast<char>(bits >> (6 * count - 8) & 255U);
  if (count == 3) out += static_cast<char>(bits >> 2 & 255U);
  return out;
}

void decode_base64(const std::string& text) {
  const fuzz::exact_bytes in(text);
  const std::string expected = plainly_decoded(text);
  for (const base64_kernel* const kernel : base64_kernels()) {
    if (kernel == nullptr) continue;
    choose_base64_kernel(kernel);
    fuzz::output<void*> out;
    const int result = codecs::from_b64(in.data(), in.size(), out.data, out.length);
    if (result != 0)
      REQUIRE(out.bytes() == expected);  // a leftover character may stand in place of the NUL
    else
      out.check(false);
  }
  choose_base64_kernel(nullptr);
}

void encode_base64(const std::string& bytes, int line) {
  const fuzz::exact_bytes in(bytes);
  std::string first;
  for (const base64_kernel* const kernel : base64_kernels()) {
    if (kernel == nullptr) continue;
    choose_base64_kernel(kernel);
    fuzz::output<char*> text;
    if (!text.check(codecs::to_b64(in.data(), in.size(), text.data, text.length, line) != 0))
      continue;
    REQUIRE(first.empty() || text.bytes() == first);
    first = text.bytes();
    REQUIRE(std::strlen(text.data) == first.size());
    fuzz::output<void*> back;
    if (back.check(codecs::from_b64(text.data, text.length, back.data, back.length) != 0))
      REQUIRE(back.bytes() == bytes);
  }
  choose_base64_kernel(nullptr);
  const size_t longest = line >= 4 ? static_cast<size_t>(line) / 4 * 4 : first.size();
  for (size_t start = 0; start < first.size();) {
    const size_t end = std::min(first.find("\r\n", start), first.size());
    REQUIRE(end - start <= longest && end > start);
    start = end + 2;
  }
}

void decode_quoted_printable(const std::string& text) {
  const fuzz::exact_bytes in(text);
  fuzz::output<void*> out;
  if (out.check(codecs::from_qp(in.data(), in.size(), out.data, out.length) != 0))
    REQUIRE(out.length <= in.size());
}

// A letter in front, because the decoder takes one of two dots at the start away.
void encode_quoted_printable(const std::string& bytes, int line) {
  const std::string text = "x" + std::string(bytes.c_str());
  fuzz::output<char*> coded;
  const int result =
      codecs::to_qb(text.c_str(), static_cast<long>(text.size()), coded.data, coded.length, line);
  if (result == 0) {
    coded.check(false);
    return;
  }
  const fuzz::exact_bytes in{std::string(coded.data)};  // the length is not that of the text
  fuzz::output<void*> back;
  if (back.check(codecs::from_qp(in.data(), in.size(), back.data, back.length) != 0))
    REQUIRE(back.bytes() == text);
}

void decode_extended_value(const std::string& bytes) {
  const std::string text = bytes.c_str();
  std::string value = text;
  tav_eml_mlutl_mail_part part;
  part.m_cFIleName.CopyString("before");
  codecs::decode_and_set_escape_string(part, value.data());
  REQUIRE(fuzz::text_of(part.m_cFIleName).size() <= text.size() + 6);
  fuzz::text_of(part.m_cFileExtension);
  fuzz::exact_bytes out(text);
  codecs::escape_string_decode(text.c_str(), static_cast<int>(text.size()), out.data());
}

void digest(const std::string& bytes, size_t key_length) {
  const std::string key = bytes.substr(0, key_length);
  const fuzz::exact_bytes data(bytes);
  tav_eml_mlutl_mail_hash hash;
  unsigned long state[4];
  hash.GetMD5Digest(data.data(), static_cast<unsigned long>(data.size()), state);
  char first[33], second[33];
  hash.GetMD5Hash(bytes.c_str(), first);
  tav_eml_mlutl_mail_hash().GetMD5Hash(bytes.c_str(), second);
  REQUIRE(std::strcmp(first, second) == 0 && std::strlen(first) == 32);
  hash.GetHMACMD5Hash(bytes.c_str(), key.c_str(), first);
  REQUIRE(std::strlen(first) == 32);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const fuzz::memory_run run(in);
  const unsigned codec = in.number() % 6;
  const int parameter = static_cast<int>(in.number()) - 8;
  const std::string bytes = in.rest();
  try {
    switch (codec) {
      case 0:
        decode_base64(bytes);
        break;
      case 1:
        encode_base64(bytes, parameter);
        break;
      case 2:
        decode_quoted_printable(bytes);
        break;
      case 3:
        encode_quoted_printable(bytes, parameter);
        break;
      case 4:
        decode_extended_value(bytes);
        break;
      default:
        digest(bytes, static_cast<size_t>(parameter + 8));
        break;
    }
  } catch (const std::bad_alloc&) {  // from the target's own strings
  }
  return 0;
}
