#include "japanese_tables.h"

#include <iconv.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <vector>

namespace {

constexpr unsigned int kTrails = 0xFD - 0x40;
constexpr unsigned int kRow = 94;

// Decodes one character at a time through the system's converter.
class system_decoder {
 public:
  explicit system_decoder(const char* charset) : m_pConverter(iconv_open("UTF-32LE", charset)) {}
  system_decoder(const system_decoder&) = delete;
  system_decoder& operator=(const system_decoder&) = delete;
  ~system_decoder() {
    if (is_open()) iconv_close(m_pConverter);
  }

  bool is_open() const { return m_pConverter != reinterpret_cast<iconv_t>(-1); }

  uint32_t decode(std::initializer_list<unsigned int> bytes) const {
    char in[4] = {};
    std::transform(bytes.begin(), bytes.end(), in,
                   [](unsigned int b) { return static_cast<char>(b); });
    unsigned char out[8] = {};
    char* in_at = in;
    char* out_at = reinterpret_cast<char*>(out);
    size_t in_left = bytes.size();
    size_t out_left = sizeof out;
    iconv(m_pConverter, nullptr, nullptr, nullptr, nullptr);
    if (iconv(m_pConverter, &in_at, &in_left, &out_at, &out_left) != 0 || out_left != 4) {
      return kNoCharacter;
    }
    return out[0] | static_cast<uint32_t>(out[1]) << 8 | static_cast<uint32_t>(out[2]) << 16;
  }

 private:
  iconv_t m_pConverter;
};

bool is_lead(unsigned int byte) {
  return (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC);
}

// The same character by two mappings: what others write, and what CP932 has.
struct alias {
  uint16_t character;
  uint16_t cp932;
};
constexpr alias kAliases[] = {
    {0x301C, 0xFF5E},  // wave dash
    {0x2212, 0xFF0D},  // minus sign
    {0x2016, 0x2225},  // double vertical line
    {0x00A2, 0xFFE0},  // cent sign
    {0x00A3, 0xFFE1},  // pound sign
    {0x00AC, 0xFFE2},  // not sign
    {0x2014, 0x2015},  // em dash
    {0x00A6, 0xFFE4},  // broken bar
    {0x00A5, 0xFFE5},  // yen sign: the half-width one would turn into a backslash
    {0x203E, 0xFFE3},  // overline: likewise into a tilde
};

struct tables {
  bool complete = false;
  std::vector<uint16_t> sjis;       // Unicode by lead and trail
  std::vector<uint16_t> unicode;    // Shift_JIS by Unicode
  std::vector<alias> nec_selected;  // Unicode and JIS code of the rows that repeat IBM's kanji
  std::vector<uint16_t> jis_x_0212;
  uint16_t latin2[0x60] = {};

  tables() : sjis((0xFD - 0x81) * kTrails), unicode(0x10000), jis_x_0212(kRow * kRow) {
    const system_decoder cp932("CP932");
    const system_decoder euc("EUC-JP");
    const system_decoder iso("ISO-8859-2");
    if (!cp932.is_open() || !euc.is_open() || !iso.is_open()) return;
    read_sjis(cp932);
    for (unsigned int byte = 0xA0; byte <= 0xFF; ++byte) {
      latin2[byte - 0xA0] = static_cast<uint16_t>(iso.decode({byte}));
    }
    for (unsigned int i = 0; i < kRow * kRow; ++i) {
      jis_x_0212[i] = static_cast<uint16_t>(euc.decode({0x8F, 0xA1 + i / kRow, 0xA1 + i % kRow}));
    }
    complete = true;
  }

  void read_sjis(const system_decoder& cp932) {
    for (unsigned int lead = 0x81; lead <= 0xFC; ++lead) {
      for (unsigned int trail = 0x40; trail <= 0xFC && is_lead(lead); ++trail) {
        const uint32_t character = trail != 0x7F ? cp932.decode({lead, trail}) : kNoCharacter;
        if (character == kNoCharacter || character > 0xFFFF) continue;
        sjis[(lead - 0x81) * kTrails + trail - 0x40] = static_cast<uint16_t>(character);
        take(static_cast<uint16_t>(character), lead, trail);
      }
    }
    std::sort(nec_selected.begin(), nec_selected.end(),
              [](const alias& a, const alias& b) { return a.character < b.character; });
    for (const alias& other : kAliases) {
      if (unicode[other.character] == 0) unicode[other.character] = unicode[other.cp932];
    }
  }

  // Of several codes for a character Shift_JIS keeps the first, but IBM's own before the rows in
  // which another vendor repeats them.
  void take(uint16_t character, unsigned int lead, unsigned int trail) {
    const uint16_t code = static_cast<uint16_t>(lead << 8 | trail);
    const bool is_repeated = lead == 0xED || lead == 0xEE;
    if (is_repeated) nec_selected.push_back({character, code});
    const unsigned int held = unicode[character];
    if (held == 0 || (held >> 8) == 0xED || (held >> 8) == 0xEE) unicode[character] = code;
  }
};

const tables& all() {
  static const tables& instance = *new tables;
  return instance;
}

unsigned int sjis_to_jis(unsigned int code) {
  unsigned int lead = code >> 8;
  unsigned int trail = code & 0xFF;
  lead = (lead < 0xA0 ? lead - 0x81 : lead - 0xC1) * 2 + 0x21;
  if (trail >= 0x9F) return (lead + 1) << 8 | (trail - 0x7E);
  return lead << 8 | (trail - (trail >= 0x80 ? 0x20 : 0x1F));
}

unsigned int jis_to_sjis(unsigned int code) {
  const unsigned int row = (code >> 8) - 0x21;
  const unsigned int cell = code & 0xFF;
  const unsigned int lead = row / 2 + (row / 2 < 0x1F ? 0x81 : 0xC1);
  if (row % 2 == 1) return lead << 8 | (cell + 0x7E);
  return lead << 8 | (cell + (cell >= 0x60 ? 0x20 : 0x1F));
}

bool is_two_byte_code(unsigned int code) {
  const unsigned int row = code >> 8;
  const unsigned int cell = code & 0xFF;
  return row >= 0x21 && row <= 0x7E && cell >= 0x21 && cell <= 0x7E;
}

// U+FF61 to U+FF9F.
constexpr uint16_t kFullWidth[] = {
    0x3002, 0x300C, 0x300D, 0x3001, 0x30FB, 0x30F2, 0x30A1, 0x30A3, 0x30A5, 0x30A7, 0x30A9,
    0x30E3, 0x30E5, 0x30E7, 0x30C3, 0x30FC, 0x30A2, 0x30A4, 0x30A6, 0x30A8, 0x30AA, 0x30AB,
    0x30AD, 0x30AF, 0x30B1, 0x30B3, 0x30B5, 0x30B7, 0x30B9, 0x30BB, 0x30BD, 0x30BF, 0x30C1,
    0x30C4, 0x30C6, 0x30C8, 0x30CA, 0x30CB, 0x30CC, 0x30CD, 0x30CE, 0x30CF, 0x30D2, 0x30D5,
    0x30D8, 0x30DB, 0x30DE, 0x30DF, 0x30E0, 0x30E1, 0x30E2, 0x30E4, 0x30E6, 0x30E8, 0x30E9,
    0x30EA, 0x30EB, 0x30EC, 0x30ED, 0x30EF, 0x30F3, 0x309B, 0x309C};
static_assert(std::size(kFullWidth) == 0xFF9F - 0xFF61 + 1, "one for each");

}  // namespace

bool have_japanese_tables() { return all().complete; }

uint32_t unicode_of_sjis(unsigned int code) {
  const unsigned int lead = code >> 8;
  const unsigned int trail = code & 0xFF;
  if (!is_lead(lead) || trail < 0x40 || trail > 0xFC) return kNoCharacter;
  return all().sjis[(lead - 0x81) * kTrails + trail - 0x40];
}

uint32_t sjis_of_unicode(uint32_t character) {
  return character < all().unicode.size() ? all().unicode[character] : kNoCharacter;
}

uint32_t unicode_of_jis(unsigned int code) {
  return is_two_byte_code(code) ? unicode_of_sjis(jis_to_sjis(code)) : kNoCharacter;
}

uint32_t jis_of_unicode(uint32_t character) {
  unsigned int code = sjis_of_unicode(character);
  if (code >= 0xF000) {
    // Outside the 94 rows: the repeated form, which is inside, is what mail readers know.
    const auto& list = all().nec_selected;
    uint16_t wanted = static_cast<uint16_t>(character);
    for (const alias& other : kAliases) {
      if (other.character == wanted) wanted = other.cp932;
    }
    const auto found = std::lower_bound(
        list.begin(), list.end(), wanted,
        [](const alias& entry, uint16_t value) { return entry.character < value; });
    if (found == list.end() || found->character != wanted) return kNoCharacter;
    code = found->cp932;
  }
  return code != kNoCharacter ? sjis_to_jis(code) : kNoCharacter;
}

uint32_t unicode_of_jis_x_0212(unsigned int code) {
  if (!is_two_byte_code(code)) return kNoCharacter;
  return all().jis_x_0212[((code >> 8) - 0x21) * kRow + (code & 0xFF) - 0x21];
}

uint32_t unicode_of_latin2(unsigned int byte) { return all().latin2[byte - 0xA0]; }

uint32_t latin2_of_unicode(uint32_t character) {
  const auto found = std::find(std::begin(all().latin2), std::end(all().latin2), character);
  return found != std::end(all().latin2) ? static_cast<uint32_t>(found - all().latin2) + 0xA0
                                         : kNoCharacter;
}

uint32_t full_width(uint32_t character) { return kFullWidth[character - 0xFF61]; }

uint32_t full_width_voiced(uint32_t character, uint32_t mark) {
  constexpr uint32_t kVoiced = 0xFF9E;
  constexpr uint32_t kSemiVoiced = 0xFF9F;
  const bool is_ka_to = character >= 0xFF76 && character <= 0xFF84;
  const bool is_ha_ho = character >= 0xFF8A && character <= 0xFF8E;
  if (mark == kVoiced && character == 0xFF73) return 0x30F4;
  if (mark == kVoiced && (is_ka_to || is_ha_ho)) return full_width(character) + 1;
  return mark == kSemiVoiced && is_ha_ho ? full_width(character) + 2 : kNoCharacter;
}
