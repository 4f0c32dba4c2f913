// tav_eml_mlutl_mail_part.h - one MIME body part.

#ifndef TAV_EML_MLUTL_MAIL_PART_H
#define TAV_EML_MLUTL_MAIL_PART_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"
#include "utl_object.h"
#include "utl_string.h"

namespace quorvelmida {

// A part holds its typed header values, some header texts and its data. When sending, the
// application fills it; when receiving, the parser does. One thread uses a part at a time.
//
// The part owns its data, one UtlOS block that ends in a NUL which the length does not count.
// Results are 1 for success and 0 for failure unless stated; a failure writes a line to the debug
// log.
class TAVEML_API tav_eml_mlutl_mail_part : public UtlObject {
 public:
  tav_eml_mlutl_mail_part();
  // Copies share nothing. The CIAJWNETFAX value is not copied; an assignment keeps the old one. If
  // there is no memory for the data, the copy has no data.
  tav_eml_mlutl_mail_part(const tav_eml_mlutl_mail_part& other);
  tav_eml_mlutl_mail_part& operator=(const tav_eml_mlutl_mail_part& other);
  ~tav_eml_mlutl_mail_part() override;

  // Copies `other` into this part, which must hold no data.
  int CopyPart(const tav_eml_mlutl_mail_part& other);

  // Takes the first `length` bytes out of the part, or all of them if `length` is below 1. The
  // caller frees `data` with UtlOS::MemFree; a NUL follows the `length` bytes. A part without data
  // gives null and 0, with success. On failure `data` is null, `length` 0, and the part keeps its
  // data.
  int get_buffer(void*& data, long& length);

  // Appends `length` (above 0) bytes and takes over the UtlOS block `data`: on success the caller's
  // pointer becomes null and its length 0. The block must have room for a NUL after the data. On
  // failure the caller keeps the block.
  int set_buffer(void*& data, long& length);

  // Frees the data.
  void free_buffer();

  // Add `count` bytes at the end, or the front, of a UtlOS block of `length` bytes (null and 0 for
  // none). The block grows and stays NUL-terminated. On failure block and length are unchanged.
  int add_buffer(char*& buffer, long& length, const void* bytes, long count);
  int InsertBuffer(char*& buffer, long& length, const void* bytes, long count);

  // Folds a long ASCII value into lines of 64 bytes joined by CR LF TAB. Returns a new text, which
  // the caller frees with UtlOS::MemFree; null for an empty text and on failure.
  char* MakeMultiLine(const char* text);

  // Moves `cut`, the proposed length of the first piece of `text`, so that the piece does not end
  // inside a two-byte character or an ISO-2022-JP escape sequence of the part's character set. The
  // cut moves back, or forward over a closing escape sequence. `flag` not 0 applies the rules for
  // received data: text parts only, and bytes that may begin an escape sequence are held back
  // unless the part is complete. Returns the JIS mode at the cut: 0 ASCII, 1 JIS X 0201 Roman,
  // 2 katakana, 3 and 4 JIS X 0208, 5 JIS X 0208-1990, 6 JIS X 0212. The caller must close any
  // other mode than 0 with ESC ( B, and reopen it before the next piece.
  int AdjustMultiByteCode(const char* text, long& cut, int flag);

  // The text after the file name's last ".": a pointer into the file name, "" if there is no ".",
  // null if there is no file name.
  const char* get_file_extension() const;

  // Set the CIAJWNETFAX value: 1 means "IGNORE" and any other number "".
  void set_content_ciajwnetfax(int value);
  void set_content_ciajwnetfax(const char* text);
  // Returns 1 if the value is set and begins with "IGNORE" in any case.
  int is_ignore_content_ciajwnetfax();
  // Returns 1 and the value if it is not empty; otherwise 0, with `value` unchanged.
  int get_content_ciajwnetfax_source(UtlString& value);

  // Composes the part's header (RFC 2045, RFC 2183) with its empty line at the end. The caller
  // frees `buffer` with UtlOS::MemFree; on failure it is null and `length` 0. Non-ASCII file names
  // stay as they are; the send interface encodes them afterwards (inline_encode). Fails for a part
  // without a content type and for a file name with a line break. A part whose type is
  // TAV_EML_CT_UNKNOWN is composed with the text of m_cMediaType, "image/png"; it fails when that is
  // not a type and a subtype (RFC 2045 5.1) of at most 127 bytes each.
  int make_header(char*& buffer, long& length);

  TAV_EML_CONTENT_TYPE m_nContentType;
  TAV_EML_TRANSFER_ENCODING m_nTransferEncoding;
  TAV_EML_CONTENT_DISPOSITION m_nContentDisposition;
  TAV_EML_CHAR_SET m_nCharSet;    // of text data and of the file name
  UtlString m_cContentType;       // the Content-Type value as received
  UtlString m_cMediaType;         // the same up to its first ";"; see make_header when sending
  UtlString m_cTransferEncoding;  // the Content-Transfer-Encoding value as received
  UtlString m_cFIleName;          // file name, decoded, without surrounding blanks
  UtlString m_cFileExtension;     // the text after its last ".", set when receiving
  UtlString m_cHeader1;           // header texts that the receive parser keeps
  UtlString m_cHeader2;
  char* m_pData;          // owned; null when there is no data
  int32_t m_nDataLength;  // bytes, the NUL not counted
  int32_t m_nComplete;    // not 0: no more data follows
  UtlString m_cContentCiajwnetfax;

 private:
  TAVEML_LOCAL int take_front(void*& data, long& length);
};

}  // namespace quorvelmida

#endif
