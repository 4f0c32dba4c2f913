// The character code converter: every character goes through Unicode.

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "chc.h"
#include "japanese_tables.h"

namespace {

constexpr char kEscape = '\033';

// The sets between which an escape-encoded text switches.
enum class jis_set { ascii, roman, katakana, kanji, kanji_0212 };

struct escape_sequence {
  const char* text;
  size_t length;
  jis_set set;
};
constexpr escape_sequence kSequences[] = {
    {"\033(B", 3, jis_set::ascii},    {"\033(J", 3, jis_set::roman},
    {"\033(I", 3, jis_set::katakana}, {"\033$@", 3, jis_set::kanji},
    {"\033$B", 3, jis_set::kanji},    {"\033$(D", 4, jis_set::kanji_0212},
};

bool is_escape_encoded(CHC_ENCODE_TYPE type) {
  return type == CHC_ISO_2022_JP || type == CHC_X_JIS;
}

// Reads the source character by character.
class decoder {
 public:
  decoder(CHC_ENCODE_TYPE type, const char* source)
      : m_nType(type), m_pStart(source), m_pAt(source) {}

  bool at_end() const { return *m_pAt == '\0'; }
  int32_t consumed() const { return static_cast<int32_t>(m_pAt - m_pStart); }
  // True where a later call can go on: outside a run of an escape-encoded set.
  bool is_resumable() const { return m_nSet == jis_set::ascii; }

  // The next character; false when the source is not valid there.
  bool next(uint32_t& character) {
    switch (m_nType) {
      case CHC_UTF_8:
        return next_utf8(character);
      case CHC_SHIFT_JIS:
      case CHC_MS_KANJI:
        return next_sjis(character);
      case CHC_ISO_2022_JP:
      case CHC_X_JIS:
        return next_jis(character);
      default:
        return next_single(character);
    }
  }
  // Takes the escape sequences before the next character.
  bool skip_escapes() {
    while (is_escape_encoded(m_nType) && *m_pAt == kEscape) {
      const auto found =
          std::find_if(std::begin(kSequences), std::end(kSequences), [&](const auto& sequence) {
            return std::strncmp(m_pAt, sequence.text, sequence.length) == 0;
          });
      if (found == std::end(kSequences)) return false;
      m_nSet = found->set;
      m_pAt += found->length;
    }
    return true;
  }

 private:
  unsigned int byte(size_t index) const { return static_cast<unsigned char>(m_pAt[index]); }

  bool take(uint32_t value, size_t bytes, uint32_t& character) {
    character = value;
    if (value == kNoCharacter) return false;
    m_pAt += bytes;
    return true;
  }

  // RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
  bool next_utf8(uint32_t& character) {
    const unsigned int lead = byte(0);
    if (lead < 0x80) return take(lead, 1, character);
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4) return false;
    uint32_t value = lead & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
      if ((byte(i) & 0xC0) != 0x80) return false;
      value = value << 6 | (byte(i) & 0x3F);
    }
    static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < kLeast[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
      return false;
    }
    return take(value, length, character);
  }

  bool next_sjis(uint32_t& character) {
    const unsigned int lead = byte(0);
    if (lead < 0x80) return take(lead, 1, character);
    if (lead >= 0xA1 && lead <= 0xDF) return take(lead - 0xA1 + 0xFF61, 1, character);
    return take(unicode_of_sjis(lead << 8 | byte(1)), 2, character);
  }

  bool next_jis(uint32_t& character) {
    const unsigned int first = byte(0);
    if (first >= 0x80) return false;
    // Line ends and other controls stand outside the sets, and end a run that was left open.
    if (first < 0x21 || first == 0x7F) {
      if (first == '\n') m_nSet = jis_set::ascii;
      return take(first, 1, character);
    }
    switch (m_nSet) {
      case jis_set::katakana:
        return take(first <= 0x5F ? first - 0x21 + 0xFF61 : kNoCharacter, 1, character);
      case jis_set::kanji:
        return take(unicode_of_jis(first << 8 | byte(1)), 2, character);
      case jis_set::kanji_0212:
        return take(unicode_of_jis_x_0212(first << 8 | byte(1)), 2, character);
      case jis_set::roman:
        if (first == 0x5C) return take(0xA5, 1, character);
        if (first == 0x7E) return take(0x203E, 1, character);
        return take(first, 1, character);
      default:
        return take(first, 1, character);
    }
  }

  bool next_single(uint32_t& character) {
    const unsigned int value = byte(0);
    if (value < 0x80) return take(value, 1, character);
    if (m_nType == CHC_ISO_8859_1) return take(value, 1, character);
    if (m_nType != CHC_ISO_8859_2) return false;
    return take(value < 0xA0 ? value : unicode_of_latin2(value), 1, character);
  }

  const CHC_ENCODE_TYPE m_nType;
  const char* const m_pStart;
  const char* m_pAt;
  jis_set m_nSet = jis_set::ascii;
};

// Writes characters, never more than the capacity, closing escape sequence included.
class encoder {
 public:
  enum class result { written, full, no_such_character };

  encoder(CHC_ENCODE_TYPE type, char* destination, int32_t capacity)
      : m_nType(type), m_pOut(destination), m_nCapacity(capacity) {}

  result put(uint32_t character) {
    char bytes[4];
    switch (m_nType) {
      case CHC_UTF_8:
        return write(bytes, encode_utf8(character, bytes), jis_set::ascii);
      case CHC_SHIFT_JIS:
      case CHC_MS_KANJI:
        return write(bytes, encode_sjis(character, bytes), jis_set::ascii);
      case CHC_ISO_2022_JP:
      case CHC_X_JIS:
        return put_jis(character);
      default:
        return write(bytes, encode_single(character, bytes), jis_set::ascii);
    }
  }

  // Ends in ASCII state: the room for it was kept. The bytes written in all.
  int32_t close() {
    if (m_nSet != jis_set::ascii) append("\033(B", 3);
    m_nSet = jis_set::ascii;
    return m_nProduced;
  }

  // A state to come back to.
  struct mark {
    int32_t produced;
    jis_set set;
  };
  mark here() const { return {m_nProduced, m_nSet}; }
  void go_back(const mark& to) {
    m_nProduced = to.produced;
    m_nSet = to.set;
  }

 private:
  static constexpr int32_t kSequence = 3;

  static size_t encode_utf8(uint32_t character, char* out) {
    const auto tail = [&](unsigned int shift) {
      return static_cast<char>(0x80 | ((character >> shift) & 0x3F));
    };
    if (character < 0x80) {
      out[0] = static_cast<char>(character);
      return 1;
    }
    if (character < 0x800) {
      out[0] = static_cast<char>(0xC0 | character >> 6);
      out[1] = tail(0);
      return 2;
    }
    if (character < 0x10000) {
      out[0] = static_cast<char>(0xE0 | character >> 12);
      out[1] = tail(6);
      out[2] = tail(0);
      return 3;
    }
    out[0] = static_cast<char>(0xF0 | character >> 18);
    out[1] = tail(12);
    out[2] = tail(6);
    out[3] = tail(0);
    return 4;
  }

  static size_t split(uint32_t code, char* out) {
    if (code == kNoCharacter) return 0;
    out[0] = static_cast<char>(code >> 8);
    out[1] = static_cast<char>(code & 0xFF);
    return 2;
  }

  static size_t encode_sjis(uint32_t character, char* out) {
    if (character < 0x80 || is_half_width(character)) {
      out[0] = static_cast<char>(character < 0x80 ? character : character - 0xFF61 + 0xA1);
      return 1;
    }
    return split(sjis_of_unicode(character), out);
  }

  size_t encode_single(uint32_t character, char* out) const {
    uint32_t byte = kNoCharacter;
    if (character < 0x80 || (m_nType == CHC_ISO_8859_1 && character <= 0xFF)) {
      byte = character;
    } else if (m_nType == CHC_ISO_8859_2) {
      byte = character < 0xA0 ? character : latin2_of_unicode(character);
    }
    out[0] = static_cast<char>(byte);
    return byte != kNoCharacter ? 1 : 0;
  }

  result put_jis(uint32_t character) {
    char bytes[2];
    if (character < 0x80) {
      // An escape byte of the text would switch sets.
      if (character == static_cast<uint32_t>(kEscape)) return result::no_such_character;
      bytes[0] = static_cast<char>(character);
      return write(bytes, 1, jis_set::ascii);
    }
    if (is_half_width(character)) {
      if (m_nType == CHC_X_JIS) {
        bytes[0] = static_cast<char>(character - 0xFF61 + 0x21);
        return write(bytes, 1, jis_set::katakana);
      }
      character = full_width(character);
    }
    return write(bytes, split(jis_of_unicode(character), bytes), jis_set::kanji);
  }

  result write(const char* bytes, size_t length, jis_set set) {
    if (length == 0) return result::no_such_character;
    const int32_t opening = set != m_nSet ? kSequence : 0;
    const int32_t closing = set != jis_set::ascii ? kSequence : 0;
    const int32_t needed = opening + static_cast<int32_t>(length) + closing;
    if (needed > m_nCapacity - m_nProduced) return result::full;
    if (opening > 0) append(sequence_of(set), kSequence);
    append(bytes, static_cast<int32_t>(length));
    m_nSet = set;
    return result::written;
  }

  static const char* sequence_of(jis_set set) {
    if (set == jis_set::ascii) return "\033(B";
    return set == jis_set::katakana ? "\033(I" : "\033$B";
  }

  void append(const char* bytes, int32_t length) {
    std::memcpy(m_pOut + m_nProduced, bytes, static_cast<size_t>(length));
    m_nProduced += length;
  }

  const CHC_ENCODE_TYPE m_nType;
  char* const m_pOut;
  const int32_t m_nCapacity;
  int32_t m_nProduced = 0;
  jis_set m_nSet = jis_set::ascii;
};

// The next character for the destination, which may be two of the source joined.
bool next_character(CHC_ENCODE_TYPE to, decoder& in, uint32_t& character) {
  if (!in.next(character)) return false;
  if (to != CHC_ISO_2022_JP || !is_half_width(character)) return true;
  decoder ahead = in;
  uint32_t mark = kNoCharacter;
  if (!ahead.skip_escapes() || ahead.at_end() || !ahead.next(mark)) return true;
  const uint32_t joined = full_width_voiced(character, mark);
  if (joined == kNoCharacter) return true;
  character = joined;
  while (in.consumed() < ahead.consumed()) {
    if (!in.skip_escapes() || !in.next(mark)) return false;
  }
  return true;
}

int32_t convert(CHC_ENCODE_TYPE from, CHC_ENCODE_TYPE to, CHC_CONVERT_REQUEST& request) {
  decoder in(from, request.source);
  encoder out(to, request.destination, request.capacity);
  // The last point from which a later call can go on.
  int32_t consumed = 0;
  encoder::mark kept = out.here();
  const auto keep = [&] {
    consumed = in.consumed();
    kept = out.here();
  };
  for (;;) {
    if (in.is_resumable()) keep();  // before the sequence that begins a run, and after its last
    if (!in.skip_escapes()) return CHC_ERR_SOURCE;
    if (in.is_resumable() || in.at_end()) keep();
    if (in.at_end()) break;
    uint32_t character = kNoCharacter;
    if (!next_character(to, in, character)) return CHC_ERR_SOURCE;
    const encoder::result result = out.put(character);
    if (result == encoder::result::no_such_character) return CHC_ERR_NOT_CONVERTIBLE;
    if (result == encoder::result::full) break;
  }
  out.go_back(kept);
  request.produced = out.close();
  request.consumed = consumed;
  return CHC_OK;
}

bool is_known(CHC_ENCODE_TYPE type) {
  return (type >= CHC_US_ASCII && type <= CHC_UTF_8) || type == CHC_ISO_8859_1 ||
         type == CHC_ISO_8859_2;
}

}  // namespace

int32_t chc_convert_encode(CHC_ENCODE_TYPE from, CHC_ENCODE_TYPE to, CHC_CONVERT_REQUEST* request) {
  if (!is_known(from) || !is_known(to) || request == nullptr || request->source == nullptr ||
      request->capacity < 0 || (request->destination == nullptr && request->capacity > 0)) {
    return CHC_ERR_PARAM;
  }
  try {
    return have_japanese_tables() ? convert(from, to, *request) : CHC_ERR_NO_MEMORY;
  } catch (const std::bad_alloc&) {
    return CHC_ERR_NO_MEMORY;
  }
}
