// tav_eml_mlutl_mime_utility.h - MIME codecs: base64, quoted-printable, encoded words, RFC 2231.

#ifndef TAV_EML_MLUTL_MIME_UTILITY_H
#define TAV_EML_MLUTL_MIME_UTILITY_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_part.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace quorvelmida {

// The marks of an encoded word (RFC 2047): "=?", "?" and "?=".
extern TAVEML_API const char* const ABNF_ENCODE_STRING_START;
extern TAVEML_API const char* const ABNF_ENCODE_DELIMITER;
extern TAVEML_API const char* const ABNF_ENCODE_STRING_END;

// Stateless; any thread may call anything. Results are 1 for success and 0 for failure unless
// stated. Output buffers are UtlOS blocks that end in a NUL not counted by the length; the caller
// frees them with UtlOS::MemFree. On failure they are null and the length 0, and a line is written
// to the debug log.
class TAVEML_API tav_eml_mlutl_mime_utility {
 public:
  // The base64 alphabet of RFC 2045.
  static const char* const pszBase64Seed;

  // Index of a character in the alphabet: 64 for NUL, 255 for any other character outside it.
  static int Base64Seed2Index(char ch);

  // Decodes base64 (RFC 2045). Characters outside the alphabet are skipped, "=" included; padding
  // is not checked. A NUL counts as a character of value 64. A single character left over at the
  // end gives no byte: its bits replace the NUL after the data.
  static int from_b64(const char* in, long len, void*& out, long& out_len);

  // Encodes as base64, in lines of `line_len` characters (rounded down to a multiple of 4) joined
  // by CR LF; one unbroken line when `line_len` is below 4. No line break at the end.
  static int to_b64(const void* in, long len, char*& out, long& out_len, int line_len);

  // Decodes quoted-printable (RFC 2045). Removes the first of two dots at a line start (the dot
  // stuffing of SMTP and POP3). Drops a malformed escape, the "=" and the two characters after it.
  static int from_qp(const char* in, long len, void*& out, long& out_len);

  // Encodes a NUL-terminated text as quoted-printable with soft line breaks, the last one at the
  // end. `len` is not used. `out_len` is not the length of the text but the sum of the columns
  // after each byte: rely on the NUL.
  static int to_qb(const void* in, long len, char*& out, long& out_len, int line_len);

  // Appends to a UtlOS block of `buf_len` bytes (null and 0 for none). On failure block and length
  // are unchanged.
  static int ReallocationBuffer(char*& buf, long& buf_len, const void* data, long data_len);

  // Turns UTF-8 text into B-encoded words of `char_set`, folded so that no line, its CR LF
  // included, is longer than `max_line`. No character is split between words. If `max_line` has no
  // room for a folded word, the result is one word, and text beyond `len` bytes in the target set
  // is dropped. Fails if not even one character fits.
  static int ToMimeEncode(TAV_EML_CHAR_SET char_set, const void* text, long len, char*& out,
                          long& out_len, int max_line);

  // Encodes the lines of a composed header (UTF-8, lines ending in CR LF) that are not ASCII. Such
  // a line is encoded from its first blank or quote to its end, a "To: " line up to the address in
  // angle brackets. Text that `char_set` cannot express stays as it is, in UTF-8.
  static int inline_encode(const char* header, long len, char*& out, long& out_len,
                           TAV_EML_CHAR_SET char_set);

  // Decodes every encoded word of a header value, without converting its character set. `char_set`
  // becomes that of the last word decoded; without a word it does not change. "_" is not decoded,
  // and blanks between two words stay. The last argument is not used.
  static int inline_decode(const char* text, long len, char*& out, long& out_len,
                           TAV_EML_CHAR_SET& char_set, int);

  // The value, 0 to 15, of an upper-case hexadecimal digit; 0 for any other character.
  static char escape_decode(char ch);

  // Decodes the "%XX" text of `len` characters into `dst`, which has room for `len` bytes. `src` is
  // NUL-terminated.
  static void escape_string_decode(const char* src, int len, char* dst);

  // Decodes an RFC 2231 value (charset'language'text, up to a ";") into the part's file name and
  // extension. The character set and language are ignored. A failure leaves the part unchanged.
  static void decode_and_set_escape_string(tav_eml_mlutl_mail_part& part, char* value);

  // The Shift_JIS code of a JIS X 0208 code (row in the high byte); 0 when out of range.
  static unsigned short CodeConvertJis2Sjis(unsigned short jis);

  // Reserved: does nothing and returns 1.
  static int jis_2_sjis(const char*, long, char*&, long&);
};

}  // namespace quorvelmida

#endif
