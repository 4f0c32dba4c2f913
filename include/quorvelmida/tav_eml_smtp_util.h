// tav_eml_smtp_util.h - texts of device-generated mails: macros, signature, date, message id.

#ifndef TAV_EML_SMTP_UTIL_H
#define TAV_EML_SMTP_UTIL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// Stateless; any thread that may query the device's settings may call it. The caller frees result
// texts with free_buffer. Results are TAV_EML_OK or the code stated; TAV_EML_ERR_PARAM for a null
// text or result pointer.
//
// Macros: %printer, %serial, %etheraddr, %host, %ip and %equipid give the device's printer name,
// serial number, MAC address, host name, IPv4 address and equipment id. A macro whose value is not
// available expands to nothing; a "%" that does not begin a macro stays.
class TAVEML_API tav_eml_smtp_util {
 public:
  // Writes the value of macro `kind` (0 to 5 in the order above; others give the equipment id) and
  // a NUL to `cursor`, and moves `cursor` past the value. With `measure` not 0 it only moves the
  // cursor. A value has at most 64 bytes.
  static void ConvertMacroStr(int kind, char*& cursor, int measure);

  // Expands the macros of `text`. TAV_EML_ERR_NO_MEMORY gives a null result.
  static TAV_EML_RESULT ReplaceMacroStrings(const char* text, char** result);

  // A subject with its macros expanded; `length` becomes its bytes. It is encoded when it is sent.
  static TAV_EML_RESULT make_subject(const char* text, char** result, int* length);

  // A signature with its macros expanded and its lines broken as by Automatic64Linefeed.
  static TAV_EML_RESULT make_signature(const char* text, char** result, int* length);

  // Ends every line in CR LF and breaks lines after 64 characters of UTF-8 (bytes, if the text is
  // not UTF-8). A LF after a CR or a LF belongs to the same line break. Takes over `text`, a UtlOS
  // block; if memory runs out, the result is that block, unchanged. Always TAV_EML_OK.
  static TAV_EML_RESULT Automatic64Linefeed(char* text, char** result);

  // Writes the current local time to `out` as a date header value (RFC 5322 3.3), with the zone if
  // `with_zone` is 1. Names are English whatever the locale. Returns the number of bytes written,
  // or 0 if they and their NUL do not fit `size` bytes or the clock fails.
  static size_t get_date(int with_zone, size_t size, char* out);

  // Creates a message id, in angle brackets, from the bare address of a sender. TAV_EML_ERR_UNKNOWN
  // if that is not possible.
  static TAV_EML_RESULT create_original_message_id(const std::string& address, std::string& id);

  static void free_buffer(char* buffer);
};

}  // namespace quorvelmida

#endif
