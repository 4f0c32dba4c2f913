// tav_eml_mlutl_mail_address.h - the text of an address field and its parsing.

#ifndef TAV_EML_MLUTL_MAIL_ADDRESS_H
#define TAV_EML_MLUTL_MAIL_ADDRESS_H

#include "quorvelmida/tav_eml_export.h"
#include "utl_object.h"
#include "utl_string.h"

namespace quorvelmida {

// One address field (RFC 5322): one or more addresses, with or without display names. Parsing is
// lenient: odd input gives empty results and is never rejected. No operation changes the field.
class TAVEML_API tav_eml_mlutl_mail_address : public UtlObject {
 public:
  tav_eml_mlutl_mail_address();  // no text: null, not ""
  tav_eml_mlutl_mail_address(const tav_eml_mlutl_mail_address& other);
  tav_eml_mlutl_mail_address(const char* text);  // null stays null
  tav_eml_mlutl_mail_address& operator=(const tav_eml_mlutl_mail_address& other);
  ~tav_eml_mlutl_mail_address() override;

  // Moves `pos` past the quoted name that starts there and returns 1. Returns 0 and leaves `pos`
  // alone if there is no quote at `pos`, the text is null or `pos` is outside it. Returns 0 with
  // `pos` at the text's NUL if the quote never closes.
  static int SkipUserName(const char* text, int& pos);

  // Copies the next address of the list, display name included, to `out` and returns 1. `pos`
  // starts at 0 and moves to the following address. Any character of `delimiters` separates
  // addresses, except inside a quoted name. Returns 0 with a null `out` at the end, for an empty
  // address, without a text, for a `pos` outside it and for null `delimiters`.
  int get_address(UtlString& out, int& pos, const char* delimiters) const;

  // Reduces one address to the text in its angle brackets, or to itself if it has none. Returns 1,
  // or 0 if the result is empty.
  static int get_real_address(UtlString& out, const char* address);

  // Splits an address at its first "@". Returns 1, or 0 if either half is empty.
  static int split_address(UtlString& account, UtlString& domain, const char* address);

  UtlString m_cAddress;
};

}  // namespace quorvelmida

#endif
