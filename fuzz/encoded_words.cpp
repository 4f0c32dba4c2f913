// Encoded words (RFC 2047): decoding a value, encoding a run of text, encoding a whole header.
//
// Control bytes: failing allocation (2), operation, character set, line length. Then the text.

#include <algorithm>

#include "fuzz_input.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using codecs = tav_eml_mlutl_mime_utility;

// False when memory ran out.
bool decode(const std::string& text, std::string& decoded, TAV_EML_CHAR_SET& char_set) {
  const fuzz::exact_bytes in(text);
  fuzz::output<char*> out;
  if (!out.check(codecs::inline_decode(in.data(), in.size(), out.data, out.length, char_set, 0) !=
                 0))
    return false;
  REQUIRE(out.length <= in.size());  // nothing grows
  decoded = out.bytes();
  return true;
}

void encode_run(const std::string& text, TAV_EML_CHAR_SET char_set, int max_line,
                const tav_test::fake_memory& memory) {
  const fuzz::exact_bytes in(text);
  fuzz::output<char*> out;
  if (!out.check(codecs::ToMimeEncode(char_set, in.data(), in.size(), out.data, out.length,
                                      max_line) != 0))
    return;
  const std::string words = out.bytes();
  constexpr char kFold[] = "\r\n\t";
  const bool folded = words.find(kFold) != std::string::npos;
  std::string joined;
  for (size_t start = 0; start <= words.size();) {
    const size_t end = std::min(words.find(kFold, start), words.size());
    const bool last = end == words.size();
    std::string decoded;
    TAV_EML_CHAR_SET found = TAV_EML_CS_NONE;
    const bool is_decoded = decode(words.substr(start, end - start), decoded, found);
    const auto utf8 = tav_test::to_utf8(char_set, decoded);
    if (memory.failed()) return;  // the word may hold something else, or stand as it is
    REQUIRE(!folded || static_cast<int>(end - start) + (last ? 0 : 2) <= max_line);
    REQUIRE(is_decoded && utf8);
    REQUIRE(found == char_set || text.empty() || !tav_eml_mlutl_mail_type::get_char_set(found)[0]);
    joined += *utf8;
    start = last ? end + 1 : end + sizeof kFold - 1;
  }
  if (char_set == TAV_EML_CS_UTF_8)
    REQUIRE(folded ? joined == text : text.compare(0, joined.size(), joined) == 0);
}

void encode_header(const std::string& text, TAV_EML_CHAR_SET char_set,
                   const tav_test::fake_memory& memory) {
  const fuzz::exact_bytes in(text);
  fuzz::output<char*> out;
  if (!out.check(codecs::inline_encode(in.data(), in.size(), out.data, out.length, char_set) != 0))
    return;
  const auto is_plain = [](char ch) { return (ch >= 0x20 && ch <= 0x7E) || (ch >= 9 && ch <= 13); };
  if (std::all_of(text.begin(), text.end(), is_plain)) REQUIRE(out.bytes() == text);
  std::string decoded;
  if (memory.failed() || !decode(out.bytes(), decoded, char_set)) return;
  REQUIRE(text.empty() == out.bytes().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, [](fuzz::input& in, const tav_test::fake_memory& memory) {
    const unsigned operation = in.number() % 3;
    auto char_set = static_cast<TAV_EML_CHAR_SET>(in.number() % (TAV_EML_CS_NONE + 1));
    const int max_line = static_cast<int>(in.number()) - 8;
    const std::string text = in.rest();
    std::string decoded;
    if (operation == 0) decode(text, decoded, char_set);
    if (operation == 1) encode_run(text, char_set, max_line, memory);
    if (operation == 2) encode_header(text, char_set, memory);
  });
}
