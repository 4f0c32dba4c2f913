// japanese_tables.h - Shift_JIS, JIS and Unicode. Built once from the system's CP932, the form of
// Shift_JIS that has the vendor characters.

#ifndef JAPANESE_TABLES_H
#define JAPANESE_TABLES_H

#include <cstdint>

// A character that a table does not have.
constexpr uint32_t kNoCharacter = 0;

// Unicode of a two-byte Shift_JIS code, and back.
uint32_t unicode_of_sjis(unsigned int code);
uint32_t sjis_of_unicode(uint32_t character);

// Unicode of a JIS X 0208 code (two bytes of 0x21 to 0x7E, vendor rows included), and back.
uint32_t unicode_of_jis(unsigned int code);
uint32_t jis_of_unicode(uint32_t character);

// Unicode of a JIS X 0212 code.
uint32_t unicode_of_jis_x_0212(unsigned int code);

// Unicode of an ISO 8859-2 byte of 0xA0 and more, and back.
uint32_t unicode_of_latin2(unsigned int byte);
uint32_t latin2_of_unicode(uint32_t character);

// False when the system lacks one of the tables.
bool have_japanese_tables();

// Half-width katakana (U+FF61 to U+FF9F).
inline bool is_half_width(uint32_t character) { return character >= 0xFF61 && character <= 0xFF9F; }
// Its full-width form.
uint32_t full_width(uint32_t character);
// The full-width form joined with the sound mark after it; kNoCharacter when they do not join.
uint32_t full_width_voiced(uint32_t character, uint32_t mark);

#endif
