// base64, quoted-printable, RFC 2231 values and digests.
//
// Control bytes: failing allocation (2), codec, parameter. Then the bytes.

#include "codec/base64_kernel.h"
#include "fuzz_input.h"
#include "plain_base64.h"
#include "quorvelmida/taveml.h"

namespace {

using namespace quorvelmida;
using codecs = tav_eml_mlutl_mime_utility;

// With each kernel of this machine.
template <typename Check>
void with_every_kernel(Check&& check) {
  for (const base64_kernel* const kernel : base64_kernels()) {
    if (kernel == nullptr) continue;
    choose_base64_kernel(kernel);
    check();
  }
  choose_base64_kernel(nullptr);
}

void decode_base64(const std::string& text) {
  const fuzz::exact_bytes in(text);
  std::string expected = tav_test::plain_decode(text);
  expected.pop_back();  // a leftover character may stand in place of the NUL
  with_every_kernel([&] {
    fuzz::output<void*> out;
    if (codecs::from_b64(in.data(), in.size(), out.data, out.length) != 0)
      REQUIRE(out.bytes() == expected);
    else
      out.check(false);
  });
}

void encode_base64(const std::string& bytes, int line) {
  const fuzz::exact_bytes in(bytes);
  const size_t width = line >= 4 ? static_cast<size_t>(line) / 4 * 4 : 0;
  const std::string expected = tav_test::plain_encode(bytes, width);
  with_every_kernel([&] {
    fuzz::output<char*> text;
    if (text.check(codecs::to_b64(in.data(), in.size(), text.data, text.length, line) != 0))
      REQUIRE(text.bytes() == expected);
  });
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
  return fuzz::try_input(data, size, [](fuzz::input& in, const auto&) {
    const unsigned codec = in.number() % 6;
    const unsigned parameter = in.number();
    const int line = static_cast<int>(parameter) - 8;
    const std::string bytes = in.rest();
    switch (codec) {
      case 0:
        return decode_base64(bytes);
      case 1:
        return encode_base64(bytes, line);
      case 2:
        return decode_quoted_printable(bytes);
      case 3:
        return encode_quoted_printable(bytes, line);
      case 4:
        return decode_extended_value(bytes);
      default:
        return digest(bytes, parameter);
    }
  });
}
