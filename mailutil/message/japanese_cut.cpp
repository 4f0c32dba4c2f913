// Safe cut points in Japanese text.

#include <algorithm>
#include <cstring>
#include <iterator>

#include "quorvelmida/tav_eml_mlutl_mail_part.h"

namespace quorvelmida {

namespace {

bool is_jis(TAV_EML_CHAR_SET char_set) {
  return char_set == TAV_EML_CS_ISO_2022_JP || char_set == TAV_EML_CS_X_JIS;
}

bool is_shift_jis(TAV_EML_CHAR_SET char_set) {
  return char_set >= TAV_EML_CS_SHIFT_JIS && char_set <= TAV_EML_CS_MS_KANJI;
}

// The state of a Shift_JIS scan.
enum class sjis_state { single, lead, trail };

sjis_state next_state(sjis_state state, unsigned char byte) {
  if (state == sjis_state::lead) {
    const bool is_trail = (byte >= 0x40 && byte <= 0x7E) || (byte >= 0x80 && byte <= 0xFC);
    return is_trail ? sjis_state::trail : sjis_state::single;
  }
  const bool is_lead = (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC);
  return is_lead ? sjis_state::lead : sjis_state::single;
}

// A Shift_JIS piece must not end on a lead byte.
void adjust_shift_jis(const char* text, long& cut, bool hold_back) {
  sjis_state state = sjis_state::single;
  long pos = 0;
  for (; pos < cut && text[pos] != '\0'; ++pos) {
    state = next_state(state, static_cast<unsigned char>(text[pos]));
  }
  const bool text_ended = pos < cut;
  if (state == sjis_state::lead && (!text_ended || hold_back)) --cut;
}

// The escape sequences of ISO-2022-JP and the mode that each opens. A sequence that is the start of
// another one comes after it.
struct jis_escape {
  const char* sequence;
  long length;
  int mode;
};
constexpr jis_escape kJisEscapes[] = {
    {"\033(B", 3, 0}, {"\033(J", 3, 1},       {"\033(I", 3, 2}, {"\033$@", 3, 3},
    {"\033$B", 3, 4}, {"\033&@\033$B", 6, 5}, {"\033&@", 3, 5}, {"\033$(D", 4, 6},
};
constexpr char kJisEscape = '\033';
constexpr char kJisFourBytes[] = "\033$(";  // what begins a sequence of four bytes
constexpr long kShortestEscape = 3;

constexpr bool is_two_byte(int mode) { return mode == 3 || mode == 4 || mode == 5 || mode == 6; }

const jis_escape* find_escape(const char* text) {
  const auto matches = [text](const jis_escape& escape) {
    return std::strncmp(text, escape.sequence, static_cast<size_t>(escape.length)) == 0;
  };
  const auto found = std::find_if(std::begin(kJisEscapes), std::end(kJisEscapes), matches);
  return found != std::end(kJisEscapes) ? found : nullptr;
}

// A scan of ISO-2022-JP text from its start up to a proposed cut.
struct jis_scan {
  long pos = 0;
  int mode = 0;
  int previous_mode = 0;
  bool in_pair = false;  // between the two bytes of a pair

  void run(const char* text, long length, long cut) {
    while (pos < cut && pos < length) {
      if (text[pos] != kJisEscape) {
        in_pair = is_two_byte(mode) && !in_pair;
        ++pos;
        continue;
      }
      const long rest = length - pos;
      if (rest < kShortestEscape ||
          (rest == kShortestEscape && std::strncmp(text + pos, kJisFourBytes, 3) == 0)) {
        in_pair = false;
        pos = length;  // the text ends within a sequence
        return;
      }
      const jis_escape* escape = find_escape(text + pos);
      previous_mode = mode;
      mode = escape != nullptr ? escape->mode : 0;
      in_pair = false;
      pos += escape != nullptr ? escape->length : 1;
    }
  }
};

// The length of the escape sequence of `mode` that ends exactly at `cut`; 0 if there is none.
long escape_before(const char* text, long cut, int mode) {
  for (const jis_escape& escape : kJisEscapes) {
    if (escape.mode == mode && cut >= escape.length &&
        std::strncmp(text + cut - escape.length, escape.sequence,
                     static_cast<size_t>(escape.length)) == 0) {
      return escape.length;
    }
  }
  return 0;
}

int adjust_jis(const char* text, long length, long& cut) {
  jis_scan scan;
  scan.run(text, length, cut);
  cut = scan.in_pair ? scan.pos - 1 : scan.pos;

  if (length - cut >= kShortestEscape && std::strncmp(text + cut, "\033(B", 3) == 0) {
    cut += kShortestEscape;  // the piece ends in ASCII
    return 0;
  }
  const long escape = escape_before(text, cut, scan.mode);
  cut -= escape;
  return escape > 0 ? scan.previous_mode : scan.mode;
}

}  // namespace

int tav_eml_mlutl_mail_part::AdjustMultiByteCode(const char* text, long& cut, int flag) {
  cut = text != nullptr ? std::max<long>(cut, 0) : 0;
  if (text == nullptr) return 0;
  const bool is_received_data = flag != 0 && m_nContentType > TAV_EML_CT_TEXT_HTML;
  if (is_shift_jis(m_nCharSet)) {
    if (!is_received_data) adjust_shift_jis(text, cut, flag != 0 && m_nComplete == 0);
    return 0;
  }
  if (!is_jis(m_nCharSet) || is_received_data) return 0;

  const long length = static_cast<long>(std::strlen(text));
  if (flag != 0 && m_nComplete == 0) {
    // The last three bytes could be the start of an escape sequence.
    if (length < 3) {
      cut = 0;
      return 0;
    }
    if (cut >= length - 2) cut = length - 3;
  }
  return adjust_jis(text, length, cut);
}

}  // namespace quorvelmida
