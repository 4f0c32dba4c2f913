// chc.h - the device's character code converter.
//
// Contract of a port:
//  - All counts are bytes. The source ends at its NUL. Never more than `capacity` bytes are written
//    and no NUL is added.
//  - When the output is too small, the longest prefix of whole characters is delivered, and that is
//    success: `consumed` and `produced` tell how far it went. The closing escape sequence of an
//    escape-encoded text lies inside the capacity.
//  - Every piece starts and ends in ASCII state, so that pieces can be joined and decoded one by
//    one. So a source in escape sequences (CHC_ISO_2022_JP, CHC_X_JIS) is cut between two
//    characters where it is in ASCII state, and nowhere else: before the sequence that begins a run
//    of another set, or after the one that ends it. A line feed ends a run, too. A run that does
//    not fit is left whole; when it is the first, both counts are 0.
//  - Each call with a non-empty source makes progress, fails, or has an output too small for the
//    first character (success with both counts 0). A byte sequence that is not valid in the source
//    code, and a character that the destination code lacks, is a failure.
//  - The same set by several names: CHC_US_ASCII, CHC_US and CHC_ASCII; CHC_SHIFT_JIS and
//    CHC_MS_KANJI, which are Shift_JIS with the vendor characters (CP932). CHC_ISO_2022_JP and
//    CHC_X_JIS read the same sets: ASCII, JIS X 0201 (Roman letters; katakana), JIS X 0208 with the
//    vendor rows, JIS X 0212. They write ASCII and JIS X 0208 alone, but for katakana:
//    CHC_ISO_2022_JP writes half-width katakana as full-width ones, joined with a voiced sound mark
//    that follows, because that code has no half-width set (RFC 1468); CHC_X_JIS keeps them (escape
//    sequence ESC ( I). Both read either form.
//  - Vendor characters of Japanese texts (circled digits, full-width tilde, parenthesised
//    ideographs) convert. Of several codes for one, all are read and one is written. In Shift_JIS
//    that is the first of: JIS X 0208, NEC's row 13 (0x87), IBM's own rows (0xFA to 0xFC); not the
//    rows in which NEC repeats IBM's (0xED, 0xEE). In JIS, which has no place for IBM's own rows,
//    it is NEC's repeated form (rows 0x79 to 0x7C).
//  - The user-defined rows of Shift_JIS (0xF040 to 0xF9FC) are U+E000 to U+E757 and back. JIS has
//    no place for them: CHC_ERR_NOT_CONVERTIBLE.
//  - Wave dash, minus, double bar, cent, pound, not sign, em dash, broken bar, yen and overline are
//    written for both of the Unicode characters by which others know them.
//  - The codes are the fixed list below; a charset name from the wire never reaches a system
//    library.

#ifndef CHC_H
#define CHC_H

#include <cstdint>

#include "utl_export.h"

enum CHC_ENCODE_TYPE : int32_t {
  CHC_US_ASCII = 0,
  CHC_US = 1,
  CHC_ASCII = 2,
  CHC_ISO_2022_JP = 3,
  CHC_X_JIS = 4,
  CHC_SHIFT_JIS = 5,
  CHC_MS_KANJI = 6,
  CHC_UTF_8 = 7,
  CHC_ISO_8859_1 = 12,
  CHC_ISO_8859_2 = 13,
};

enum : int32_t {
  CHC_OK = 0,
  CHC_ERR_PARAM = 1,            // unknown code, null pointer or negative capacity
  CHC_ERR_SOURCE = 2,           // the source is not valid in its code
  CHC_ERR_NOT_CONVERTIBLE = 3,  // the destination code has no such character
  CHC_ERR_NO_MEMORY = 4,
};

struct CHC_CONVERT_REQUEST {
  const char* source;  // NUL-terminated
  char* destination;
  int32_t reserved;  // 0
  int32_t capacity;  // bytes at destination
  int32_t consumed;  // out: source bytes converted
  int32_t produced;  // out: bytes written
};
static_assert(sizeof(void*) != 4 || sizeof(CHC_CONVERT_REQUEST) == 24, "layout of the converter");

// Not noexcept: a device's converter may throw what the library catches around its calls.
extern "C" UTL_API int32_t chc_convert_encode(CHC_ENCODE_TYPE from, CHC_ENCODE_TYPE to,
                                              CHC_CONVERT_REQUEST* request);

#endif
