// The converter, and safe cut points in Japanese text.
//
// Control bytes: failing allocation (2), operation, set of the text, set wanted, capacity, flags of
// the part. Then the text.

#include <algorithm>

#include "fuzz_input.h"
#include "quorvelmida/taveml.h"

namespace {

using namespace quorvelmida;

constexpr int32_t kSets = TAV_EML_CS_NONE + 1;

// Converts what fits `capacity` bytes. False on failure.
bool convert(const std::string& text, TAV_EML_CHAR_SET from, TAV_EML_CHAR_SET to, size_t capacity,
             std::string& converted, size_t& consumed) {
  fuzz::exact_bytes in(text);
  fuzz::exact_bytes room{std::string(capacity, '#')};
  const TAV_EML_ENCODED_STRING source = {from, in.data(), static_cast<int32_t>(in.size())};
  TAV_EML_ENCODED_STRING target = {to, room.data(), static_cast<int32_t>(capacity)};
  int used = 0;
  if (tav_eml_mlutl_mail_type::convert_encoded_string(source, target, used) != 0) {
    REQUIRE(target.length == static_cast<int32_t>(capacity));  // untouched
    return false;
  }
  REQUIRE(used >= 0 && used <= source.length);
  REQUIRE(target.length >= 0 && target.length <= static_cast<int32_t>(capacity));
  converted.assign(room.data(), static_cast<size_t>(target.length));
  consumed = static_cast<size_t>(used);
  return true;
}

// Half-width katakana and their sound marks become one character there, or two when a piece ends
// between them; and some characters have two codes.
bool is_lossless(TAV_EML_CHAR_SET to) { return to != TAV_EML_CS_ISO_2022_JP; }

// Pieces joined say what the whole says.
void convert_in_pieces(const std::string& text, TAV_EML_CHAR_SET from, TAV_EML_CHAR_SET to,
                       size_t capacity, const tav_test::fake_memory& memory) {
  std::string whole, joined;
  size_t consumed = 0;
  const bool is_converted = convert(text, from, to, text.size() * 8 + 64, whole, consumed);
  if (!is_converted || memory.failed()) return;
  const bool is_all = consumed == text.size();
  for (std::string left = text; !left.empty();) {
    std::string piece;
    if (!convert(left, from, to, capacity, piece, consumed) || memory.failed()) return;
    if (consumed == 0) return;  // no room for a character, or a NUL ends the text
    joined += piece;
    left.erase(0, consumed);
  }
  std::string first, second;
  if (!is_all || from == to || !is_lossless(to)) return;
  const bool back = convert(whole, to, TAV_EML_CS_UTF_8, whole.size() * 4 + 16, first, consumed) &&
                    convert(joined, to, TAV_EML_CS_UTF_8, joined.size() * 4 + 16, second, consumed);
  if (memory.failed()) return;
  REQUIRE(back && first == second);
}

constexpr const char* kReopen[] = {"",       "\033(J",       "\033(I", "\033$@",
                                   "\033$B", "\033&@\033$B", "\033$(D"};

// A cut leaves two texts that say together what the whole said.
void cut(fuzz::input& in, TAV_EML_CHAR_SET char_set, size_t proposed,
         const tav_test::fake_memory& memory) {
  const unsigned flags = in.number();
  const std::string raw = in.rest();
  const std::string text = raw.c_str();
  tav_eml_mlutl_mail_part part;
  part.m_nCharSet = char_set;
  part.m_nComplete = flags & 1;
  part.m_nContentType = (flags & 2) != 0 ? TAV_EML_CT_APPLICATION_PDF : TAV_EML_CT_TEXT_PLAIN;
  const int flag = (flags & 4) != 0 ? 1 : 0;
  const long length = static_cast<long>(text.size());
  long at = std::min<long>(static_cast<long>(proposed), length);
  const long wanted = at;
  const int mode = part.AdjustMultiByteCode(text.c_str(), at, flag);
  REQUIRE(at >= 0 && at <= length && at <= wanted + 5);
  REQUIRE(mode >= 0 && mode <= 6);
  // In two-byte mode a blank or control character counts as half of a character.
  const auto is_control = [](char ch) {
    const auto byte = static_cast<unsigned char>(ch);
    return (byte <= ' ' && ch != '\033') || byte == 0x7F;
  };
  if (std::any_of(text.begin(), text.end(), is_control)) return;
  std::string whole, front, back;
  size_t consumed = 0;
  if (flag != 0 || char_set == TAV_EML_CS_UTF_8 ||
      !convert(text, char_set, TAV_EML_CS_UTF_8, text.size() * 4 + 16, whole, consumed))
    return;
  const std::string before = text.substr(0, static_cast<size_t>(at)) + (mode ? "\033(B" : "");
  const std::string behind = kReopen[mode] + text.substr(static_cast<size_t>(at));
  const bool both =
      convert(before, char_set, TAV_EML_CS_UTF_8, before.size() * 4 + 16, front, consumed) &&
      convert(behind, char_set, TAV_EML_CS_UTF_8, behind.size() * 4 + 16, back, consumed);
  if (memory.failed()) return;
  REQUIRE(both && front + back == whole);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, [](fuzz::input& in, const tav_test::fake_memory& memory) {
    const bool cuts = in.number() % 2 != 0;
    const auto from = static_cast<TAV_EML_CHAR_SET>(in.number() % kSets);
    const auto to = static_cast<TAV_EML_CHAR_SET>(in.number() % kSets);
    const size_t capacity = in.number();
    if (cuts)
      cut(in, from, capacity, memory);
    else
      convert_in_pieces(in.rest(), from, to, capacity, memory);
  });
}
