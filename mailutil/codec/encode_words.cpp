// Encoded words (RFC 2047): encoding one run of text.

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include "codec/base64.h"
#include "codec/codec_text.h"
#include "codec/encoded_words.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "message/convert_text.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace quorvelmida {

const char* const ABNF_ENCODE_STRING_START = "=?";
const char* const ABNF_ENCODE_DELIMITER = "?";
const char* const ABNF_ENCODE_STRING_END = "?=";

namespace {

constexpr char kName[] = "ToMimeEncode";
constexpr char kBase64Mark[] = "?B?";
constexpr char kFold[] = "\r\n\t";
constexpr int kLineBreak = 2;
// Room for any character: in ISO-2022-JP, two bytes between two escape sequences of three.
constexpr long kAnyCharacter = 8;

// How a run is cut into words.
struct word_layout {
  bool folded;
  long capacity;  // bytes of converted text in one word
};

word_layout layout_words(long name_length, long text_length, int max_line) {
  const long overhead = 2 + name_length + static_cast<long>(sizeof kBase64Mark) - 1 + 2;
  const int64_t base64_room = (int64_t{max_line} - overhead - kLineBreak) / 4 * 4;
  if (base64_room < 1) return {false, text_length};
  // An upper bound: every byte a character.
  const int64_t most = (int64_t{text_length} + 1) * kAnyCharacter;
  return {true, static_cast<long>(std::min(base64_room / 4 * 3, most))};
}

enum class piece_result { taken, no_room, failed };

piece_result conversion_failure(int code) {
  TAV_EML_LOG_ERROR(
      "<Error>: tav_eml_mlutl_mime_utility::%s() convert_encoded_string return 0x%x [NG]: "
      "Line%d\n",
      kName, log_code(code), 1479);
  return piece_result::failed;
}

// Converts as much of the text as fits into `converted` and moves `text` past it.
piece_result convert_piece(TAV_EML_CHAR_SET char_set, TAV_EML_ENCODED_STRING& text, long capacity,
                           utl_buffer& converted) {
  TAV_EML_ENCODED_STRING piece = {char_set, converted.data(), static_cast<int32_t>(capacity)};
  int consumed = 0;
  const int result = convert_text(text, piece, consumed);
  // With a word that has no room for a character the loop would never end.
  if (result == 0 && consumed < 1 && text.length > 0) return piece_result::no_room;
  if (result != 0) return conversion_failure(result);
  converted.set_length(piece.length);
  text.data += consumed;
  text.length -= consumed;
  return piece_result::taken;
}

// The words under construction.
class word_builder {
 public:
  explicit word_builder(const char* char_set_name)
      : m_cStart(joined({ABNF_ENCODE_STRING_START, char_set_name, kBase64Mark})) {}

  bool start() { return append(m_cStart, 1443); }
  bool add_and_fold(const std::string& chunk) {
    return append(joined({chunk, ABNF_ENCODE_STRING_END, kFold, m_cStart}), 1514);
  }
  bool add_and_end(const std::string& chunk) {
    return append(chunk, 1527) && append(ABNF_ENCODE_STRING_END, 1544);
  }
  utl_buffer& text() { return m_cText; }

 private:
  bool append(const std::string& text, int step) { return append_text(m_cText, text, kName, step); }

  const std::string m_cStart;
  utl_buffer m_cText;
};

// base64 of the converted bytes, or the bytes themselves if that fails.
std::string encode_chunk(const utl_buffer& converted) {
  utl_buffer encoded;
  if (!to_base64(converted.data(), converted.length(), 0, encoded)) {
    return {converted.data(), static_cast<size_t>(converted.length())};
  }
  return {encoded.data(), static_cast<size_t>(encoded.length())};
}

bool add_words(TAV_EML_CHAR_SET char_set, TAV_EML_ENCODED_STRING text, word_layout layout,
               tight_words tight, word_builder& words) {
  utl_buffer converted;
  if (!converted.allocate_uncleared(std::max(layout.capacity, kAnyCharacter))) {
    return codec_failure(kName, " failed to allocate memory");
  }
  if (!words.start()) return false;
  for (;;) {
    piece_result result = convert_piece(char_set, text, layout.capacity, converted);
    if (result == piece_result::no_room && tight == tight_words::grow &&
        layout.capacity < kAnyCharacter) {
      layout = {true, kAnyCharacter};
      result = convert_piece(char_set, text, layout.capacity, converted);
    }
    if (result == piece_result::no_room) result = conversion_failure(-1);
    if (result == piece_result::failed) return false;
    const std::string chunk = encode_chunk(converted);
    if (!layout.folded || text.length == 0) return words.add_and_end(chunk);
    if (!words.add_and_fold(chunk)) return false;
  }
}

}  // namespace

bool encode_as_words(TAV_EML_CHAR_SET char_set, const char* text, long len, int max_line,
                     tight_words tight, utl_buffer& out) {
  const char* name = tav_eml_mlutl_mail_type::get_char_set(char_set);
  if (*name == '\0') {
    TAV_EML_LOG_ERROR(
        "<Error> : tav_eml_mlutl_mime_utility::ToMimeEncode() get_char_set returns "
        "empty-string.[%x]\n",
        log_code(char_set));
    return false;
  }
  if (len >= INT_MAX) return codec_failure(kName, " failed to allocate memory");
  const TAV_EML_ENCODED_STRING source = {TAV_EML_CS_UTF_8, const_cast<char*>(text),
                                         static_cast<int32_t>(len > 0 ? len : 0)};
  word_builder words(name);
  const word_layout layout =
      layout_words(static_cast<long>(std::strlen(name)), source.length, max_line);
  if (!add_words(char_set, source, layout, tight, words)) return false;
  out = std::move(words.text());
  return true;
}

int tav_eml_mlutl_mime_utility::ToMimeEncode(TAV_EML_CHAR_SET char_set, const void* text, long len,
                                             char*& out, long& out_len, int max_line) {
  out = nullptr;
  out_len = 0;
  if (!is_readable(kName, text, len)) return 0;
  return guarded(kName, false, [&] {
    utl_buffer words;
    const bool is_encoded = encode_as_words(char_set, static_cast<const char*>(text), len, max_line,
                                            tight_words::fail, words);
    if (is_encoded) words.release(out, out_len);
    return is_encoded;
  });
}

}  // namespace quorvelmida
