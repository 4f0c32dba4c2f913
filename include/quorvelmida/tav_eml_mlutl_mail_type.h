// tav_eml_mlutl_mail_type.h - the MIME vocabulary: header texts and their values.

#ifndef TAV_EML_MLUTL_MAIL_TYPE_H
#define TAV_EML_MLUTL_MAIL_TYPE_H

#include <cstdint>

#include "chc.h"
#include "quorvelmida/tav_eml_export.h"

namespace quorvelmida {

enum TAV_EML_CONTENT_TYPE : int32_t {
  TAV_EML_CT_TEXT_PLAIN = 0,
  TAV_EML_CT_TEXT_HTML = 1,
  TAV_EML_CT_MULTIPART = 2,  // any multipart subtype that has no value of its own
  TAV_EML_CT_MULTIPART_MIXED = 3,
  TAV_EML_CT_MULTIPART_REPORT = 4,
  TAV_EML_CT_MESSAGE_DISPOSITION_NOTIFICATION = 5,
  TAV_EML_CT_MESSAGE_PARTIAL = 6,
  TAV_EML_CT_APPLICATION_PDF = 7,
  TAV_EML_CT_APPLICATION_POSTSCRIPT = 8,
  TAV_EML_CT_APPLICATION_APPLEFILE = 9,
  TAV_EML_CT_APPLICATION_OXPS = 10,
  TAV_EML_CT_APPLICATION_DOCX = 11,
  TAV_EML_CT_APPLICATION_XLSX = 12,
  TAV_EML_CT_APPLICATION_PPTX = 13,
  TAV_EML_CT_IMAGE_TIFF = 14,
  TAV_EML_CT_IMAGE_JPEG = 15,
  TAV_EML_CT_APPLICATION_XPS = 16,
  TAV_EML_CT_NONE = 17,     // end of the table
  TAV_EML_CT_UNKNOWN = 18,  // no row matches; a new part has it
};

enum TAV_EML_TRANSFER_ENCODING : int32_t {
  TAV_EML_TE_7BIT = 0,
  TAV_EML_TE_8BIT = 1,
  TAV_EML_TE_BASE64 = 2,
  TAV_EML_TE_QUOTED_PRINTABLE = 3,
  TAV_EML_TE_UNKNOWN = 4,  // no row matches
  TAV_EML_TE_NONE = 5,     // not set; a new part has it
};

enum TAV_EML_CONTENT_DISPOSITION : int32_t {
  TAV_EML_CD_INLINE = 0,
  TAV_EML_CD_ATTACHMENT = 1,
  TAV_EML_CD_UNKNOWN = 2,  // no row matches
  TAV_EML_CD_NONE = 3,     // not set; a new part has it
};

// 5 and 6 are the JIS family (escape sequences), 7 to 9 the Shift_JIS family.
enum TAV_EML_CHAR_SET : int32_t {
  TAV_EML_CS_US_ASCII = 0,
  TAV_EML_CS_US = 1,
  TAV_EML_CS_ASCII = 2,
  TAV_EML_CS_ISO_8859_1 = 3,
  TAV_EML_CS_ISO_8859_2 = 4,
  TAV_EML_CS_ISO_2022_JP = 5,
  TAV_EML_CS_X_JIS = 6,
  TAV_EML_CS_SHIFT_JIS = 7,
  TAV_EML_CS_X_SJIS = 8,
  TAV_EML_CS_MS_KANJI = 9,
  TAV_EML_CS_UTF_8 = 10,
  TAV_EML_CS_UNKNOWN = 11,  // no row matches
  TAV_EML_CS_NONE = 12,     // not set; a new part has it
};

// Values of the Content-X-CIAJWNETFAX header.
enum TAV_EML_CONTET_X_CIAJWNETFAX : int32_t {
  TAV_EML_CX_IGNORE = 0,
  TAV_EML_CX_UNKNOWN = 1,
  TAV_EML_CX_NONE = 2,
};

// One row of a type table: a header text and its value. The row with the text "" ends the table.
template <typename Value>
struct TAV_EML_TYPE_ROW {
  const char* text;
  Value value;
};

// One row of EncodeTypeTable; the row (TAV_EML_CS_UNKNOWN, -1) ends it.
struct TAV_EML_ENCODE_TYPE_ROW {
  int32_t char_set;     // TAV_EML_CHAR_SET
  int32_t encode_type;  // CHC_ENCODE_TYPE
};

// A run of bytes with its character set.
struct TAV_EML_ENCODED_STRING {
  TAV_EML_CHAR_SET char_set;
  char* data;      // never owned; as the output, a buffer to fill
  int32_t length;  // bytes; as the output, the capacity on entry and the bytes written on return
};

static_assert(sizeof(void*) != 4 || (sizeof(TAV_EML_TYPE_ROW<TAV_EML_CHAR_SET>) == 8 &&
                                     sizeof(TAV_EML_ENCODED_STRING) == 12),
              "layout on the target");

// "multipart/report" as it is composed: with its report type on a continuation line.
extern TAVEML_API const char* const ContentTypeWinthParam;

class TAVEML_API tav_eml_mlutl_mail_type {
 public:
  // Searched from the top: the first row whose text begins the value wins, so the order matters.
  static const TAV_EML_TYPE_ROW<TAV_EML_CONTENT_TYPE> ContentTypeTable[];
  static const TAV_EML_TYPE_ROW<TAV_EML_TRANSFER_ENCODING> TransferEncodingTable[];
  static const TAV_EML_TYPE_ROW<TAV_EML_CONTENT_DISPOSITION> ContentDispositionTable[];
  static const TAV_EML_TYPE_ROW<TAV_EML_CHAR_SET> CharSetTable[];
  static const TAV_EML_TYPE_ROW<TAV_EML_CONTET_X_CIAJWNETFAX> ContetXCiajwnetfaxTable[];
  static const TAV_EML_ENCODE_TYPE_ROW EncodeTypeTable[];

  // The enumerator of a header value (not null). A value matches a row if it begins with the row's
  // text, in any case, whatever follows. The _UNKNOWN enumerator if no row matches.
  static TAV_EML_CONTENT_TYPE test_content_type(const char* text);
  static TAV_EML_TRANSFER_ENCODING test_transfer_encoding(const char* text);
  static TAV_EML_CONTENT_DISPOSITION test_content_disposition(const char* text);
  static TAV_EML_CHAR_SET test_char_set(const char* text);
  static TAV_EML_CONTET_X_CIAJWNETFAX test_contet_x_ciajwnetfax(const char* text);

  // The header text of an enumerator: a constant, never null, "" for a value without a row.
  static const char* get_content_type(TAV_EML_CONTENT_TYPE value);
  static const char* get_transfer_encoding(TAV_EML_TRANSFER_ENCODING value);
  static const char* get_content_disposition(TAV_EML_CONTENT_DISPOSITION value);
  static const char* get_char_set(TAV_EML_CHAR_SET value);
  static const char* get_contet_x_ciajwnetfax(TAV_EML_CONTET_X_CIAJWNETFAX value);

  // The converter's code of a character set: 0 and `type` set, or -1 and `type` untouched.
  static int convert_util_lib_encode_type(TAV_EML_CHAR_SET char_set, CHC_ENCODE_TYPE& type);

  // Converts `in` into the buffer and character set of `out`. Returns 0 on success, and -1 on
  // failure with `out` unchanged. If the buffer is too small, as many whole characters as fit are
  // converted. `consumed` becomes the number of source bytes used, out.length the number of bytes
  // written. No NUL is added. Equal sets copy the bytes; a UTF-8 text that must be cut is cut
  // before the character that touches the buffer's last byte, even if that character fits.
  static int convert_encoded_string(const TAV_EML_ENCODED_STRING& in, TAV_EML_ENCODED_STRING& out,
                                    int& consumed);
};

}  // namespace quorvelmida

#endif
