// tav_eml_smtp_util.h - texts of device-generated mails: macros, signature, date, message id.

#ifndef TAV_EML_SMTP_UTIL_H
#define TAV_EML_SMTP_UTIL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// Stateless; any thread that may query the device's settings may call it. Results are UtlOS blocks
// that the caller frees with free_buffer. TAV_EML_OK, or the code that is named; TAV_EML_ERR_PARAM
// for a null text or result.
//
// Macros: %printer, %serial, %etheraddr, %host, %ip and %equipid stand for the device's printer
// name, serial number, MAC address, host name, IPv4 address and equipment id. A macro whose value
// cannot be had expands to nothing; a "%" that begins no macro stays.
class TAVEML_API tav_eml_smtp_util {
 public:
  // Writes the value of macro `kind` (0 to 5 in the order above; others give the equipment id) with
  // its NUL to `cursor` and moves it behind the value. With `measure` not 0 it only moves the
  // cursor. A value has at most 64 bytes.
  static void ConvertMacroStr(int kind, char*& cursor, int measure);

  // Expands the macros of `text`. TAV_EML_ERR_NO_MEMORY, with a null result.
  static TAV_EML_RESULT ReplaceMacroStrings(const char* text, char** result);

  // A subject with its macros expanded; `length` is its bytes. It is encoded when it is sent.
  static TAV_EML_RESULT make_subject(const char* text, char** result, int* length);

  // A signature with its macros expanded and its lines broken by Automatic64Linefeed.
  static TAV_EML_RESULT make_signature(const char* text, char** result, int* length);

  // Makes every line end CR LF and no line longer than 64 characters (UTF-8; ASCII for anything
  // else). A LF behind a CR or a LF is part of the same line break. Takes `text`, a UtlOS block,
  // over; when memory runs out the result is that block, unchanged. TAV_EML_OK.
  static TAV_EML_RESULT Automatic64Linefeed(char* text, char** result);

  // The current local time as a date header value (RFC 5322 3.3), with the zone when `with_zone` is
  // 1. Names are English whatever the locale. The bytes written to `out`, or 0 when they do not fit
  // `size` bytes with their NUL.
  static size_t get_date(int with_zone, size_t size, char* out);

  // A message id, in angle brackets, from the bare address of a sender. TAV_EML_ERR_UNKNOWN when
  // the address gives none.
  static TAV_EML_RESULT create_original_message_id(const std::string& address, std::string& id);

  static void free_buffer(char* buffer);
};

}  // namespace quorvelmida

#endif
