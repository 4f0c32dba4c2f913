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

  // Index of a character in the alphabet, 255 when it is not in it; 64 for NUL.
  static int Base64Seed2Index(char ch);

  // Decodes base64 (RFC 2045). Whatever is not in the alphabet is skipped, "=" included, padding is
  // not verified. A NUL counts as a character of value 64. A single character left over at the end
  // gives no byte: its bits stand in the byte behind the data in place of the NUL.
  static int from_b64(const char* in, long len, void*& out, long& out_len);

  // Encodes as base64, in lines of `line_len` characters (rounded down to a multiple of 4) joined
  // by CR LF; one unbroken line when `line_len` is below 4. No line break at the end.
  static int to_b64(const void* in, long len, char*& out, long& out_len, int line_len);

  // Decodes quoted-printable (RFC 2045). Removes the first of two dots at a line start (the
  // stuffing of SMTP and POP3); drops malformed escapes.
  static int from_qp(const char* in, long len, void*& out, long& out_len);

  // Encodes a NUL-terminated text as quoted-printable with soft line breaks, one at the end
  // included. `len` sizes the work only. `out_len` is the running sum of the column after each
  // byte, not the length of the text: use the NUL.
  static int to_qb(const void* in, long len, char*& out, long& out_len, int line_len);

  // Appends to a UtlOS block of `buf_len` bytes (null and 0 for none). On failure block and length
  // are unchanged.
  static int ReallocationBuffer(char*& buf, long& buf_len, const void* data, long data_len);

  // Turns UTF-8 text into B-encoded words of `char_set`, folded so that no line, its CR LF
  // included, is longer than `max_line`. No character is split between words. When `max_line` has
  // no room for a folded word, one word is made and the text that does not fit `len` bytes in the
  // target set is dropped; it fails when not even one character fits.
  static int ToMimeEncode(TAV_EML_CHAR_SET char_set, const void* text, long len, char*& out,
                          long& out_len, int max_line);

  // Encodes what is not ASCII in a composed header (UTF-8, lines ending in CR LF): on a line with
  // such a byte everything from its first blank or quote on, on a "To: " line up to the address in
  // angle brackets. Text that `char_set` cannot express stays as it is.
  static int inline_encode(const char* header, long len, char*& out, long& out_len,
                           TAV_EML_CHAR_SET char_set);

  // Decodes every encoded word of a header value, without converting its character set. `char_set`
  // becomes that of the last word decoded and is untouched when there is none. The last argument
  // is not used.
  static int inline_decode(const char* text, long len, char*& out, long& out_len,
                           TAV_EML_CHAR_SET& char_set, int);

  // Value 0 to 15 of an upper-case hexadecimal digit; 0 for any other character.
  static char escape_decode(char ch);

  // Decodes the "%XX" text of `len` characters into `dst`, which has room for `len` bytes. `src` is
  // NUL-terminated.
  static void escape_string_decode(const char* src, int len, char* dst);

  // Decodes an RFC 2231 value (charset'language'text, up to a ";") into the part's file name and
  // extension. The character set and language are skipped. A failure leaves the part unchanged.
  static void decode_and_set_escape_string(tav_eml_mlutl_mail_part& part, char* value);

  // The Shift_JIS code of a JIS X 0208 code (row in the high byte); 0 when out of range.
  static unsigned short CodeConvertJis2Sjis(unsigned short jis);

  // Reserved: does nothing and returns 1.
  static int jis_2_sjis(const char*, long, char*&, long&);
};

}  // namespace quorvelmida

#endif
