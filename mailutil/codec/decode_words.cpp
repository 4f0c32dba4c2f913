// Encoded words (RFC 2047): decoding a header value, or a whole header.
//
//   encoded-word = "=?" charset "?" encoding "?" encoded-text "?="

#include <algorithm>
#include <string>
#include <string_view>

#include "codec/base64.h"
#include "codec/codec_text.h"
#include "codec/encoded_words.h"
#include "codec/quoted_printable.h"
#include "common/guard.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace quorvelmida {

namespace {

constexpr size_t kShortestWord = 6;
constexpr size_t kMarkLength = 3;

// Whether CR, LF and NUL from an encoded word become blanks. Where a header is split into lines
// afterwards, they could forge a line.
enum class line_breaks { kept, blanked };

// Takes a piece of decoded text; `step` says which piece it is. False if memory ran out.
using text_sink = bool (*)(void* out, std::string_view piece, int step);

enum class word_encoding { unknown, base64, quoted_printable };

// An encoded word; positions are within the whole value.
struct encoded_word {
  size_t start;  // of "=?"
  size_t end;    // of "?="
  size_t mark;   // of "?B?" or "?Q?"
  word_encoding encoding;
};

// Finds the next text that is delimited like an encoded word.
bool find_word(std::string_view value, size_t from, encoded_word& word) {
  word.start = value.find(ABNF_ENCODE_STRING_START, from);
  if (word.start == std::string_view::npos) return false;
  const size_t first = value.find(ABNF_ENCODE_DELIMITER, word.start + 2);
  if (first == std::string_view::npos) return false;
  const size_t second = value.find(ABNF_ENCODE_DELIMITER, first + 1);
  if (second == std::string_view::npos) return false;
  // Search after the second "?": with a payload that begins with "=" it is not the word's end.
  word.end = value.find(ABNF_ENCODE_STRING_END, second + 1);
  return word.end != std::string_view::npos;
}

// Finds the encoding mark, which counts only inside its word.
void find_mark(std::string_view value, encoded_word& word) {
  static constexpr struct {
    const char* text;
    word_encoding encoding;
  } kMarks[] = {{"?B?", word_encoding::base64},
                {"?Q?", word_encoding::quoted_printable},
                {"?b?", word_encoding::base64},
                {"?q?", word_encoding::quoted_printable}};
  const std::string_view inside = value.substr(0, word.end);
  word.encoding = word_encoding::unknown;
  for (const auto& mark : kMarks) {
    word.mark = inside.find(mark.text, word.start + 2);
    if (word.mark != std::string_view::npos) {
      word.encoding = mark.encoding;
      return;
    }
  }
}

bool decode_payload(std::string_view payload, word_encoding encoding, utl_buffer& decoded) {
  const long length = static_cast<long>(payload.size());
  return encoding == word_encoding::base64
             ? decode_base64(payload.data(), length, decoded)
             : decode_quoted_printable(payload.data(), length, decoded);
}

void blank_line_breaks(utl_buffer& text) {
  char* const end = text.data() + text.length();
  std::replace_if(
      text.data(), end, [](char ch) { return ch == '\r' || ch == '\n' || ch == '\0'; }, ' ');
}

// Passes on the text from `from` to the word's end, with the word decoded if possible.
bool hand_over_word(std::string_view value, size_t from, const encoded_word& word,
                    line_breaks breaks, text_sink sink, void* out, TAV_EML_CHAR_SET& char_set) {
  const std::string_view raw = value.substr(from, word.end + 2 - from);
  if (word.encoding == word_encoding::unknown) return sink(out, raw, 511);

  const size_t payload = word.mark + kMarkLength;
  utl_buffer decoded;
  if (!decode_payload(value.substr(payload, word.end - payload), word.encoding, decoded)) {
    return sink(out, raw, 565);
  }
  if (breaks == line_breaks::blanked) blank_line_breaks(decoded);
  if (!sink(out, value.substr(from, word.start - from), 528)) return false;
  const std::string name(value.substr(word.start + 2, word.mark - word.start - 2));
  char_set = tav_eml_mlutl_mail_type::test_char_set(name.c_str());
  return sink(out, {decoded.data(), static_cast<size_t>(decoded.length())}, 554);
}

// Passes `value` to `sink`, piece by piece, with every encoded word decoded. False if the sink
// returns false.
bool decode_words(std::string_view value, line_breaks breaks, text_sink sink, void* out,
                  TAV_EML_CHAR_SET& char_set) {
  size_t from = 0;
  encoded_word word;
  if (value.size() >= kShortestWord) {
    while (find_word(value, from, word)) {
      find_mark(value, word);
      if (!hand_over_word(value, from, word, breaks, sink, out, char_set)) return false;
      from = word.end + 2;
    }
  }
  return sink(out, value.substr(from), 576);
}

}  // namespace

void append_decoded(std::string_view value, std::string& out, TAV_EML_CHAR_SET& char_set) {
  const text_sink append = [](void* text, std::string_view piece, int /*step*/) {
    static_cast<std::string*>(text)->append(piece);
    return true;
  };
  decode_words(value, line_breaks::blanked, append, &out, char_set);
}

int tav_eml_mlutl_mime_utility::inline_decode(const char* text, long len, char*& out, long& out_len,
                                              TAV_EML_CHAR_SET& char_set, int /*unused*/) {
  out = nullptr;
  out_len = 0;
  if (!is_readable("inline_decode", text, len)) return 0;
  const text_sink append = [](void* decoded, std::string_view piece, int step) {
    return append_text(*static_cast<utl_buffer*>(decoded), piece, "inline_decode", step);
  };
  return guarded("inline_decode", false, [&] {
    return reporting_mail_exceptions(
        "<Error> : tav_eml_mlutl_mime_utility::inline_decode()", false, [&] {
          utl_buffer work;
          if (!work.assign(text, std::max<long>(len, 0))) {
            return codec_failure("inline_decode", " failed to allocate memory");
          }
          utl_buffer decoded;
          if (!decode_words(work.view(), line_breaks::kept, append, &decoded, char_set)) {
            return false;
          }
          decoded.release(out, out_len);
          return true;
        });
  });
}

}  // namespace quorvelmida
