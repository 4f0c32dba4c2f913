// tav_eml_mlutl_mail_address.h - the text of an address field and its parsing.

#ifndef TAV_EML_MLUTL_MAIL_ADDRESS_H
#define TAV_EML_MLUTL_MAIL_ADDRESS_H

#include "quorvelmida/tav_eml_export.h"
#include "utl_object.h"
#include "utl_string.h"

namespace quorvelmida {

// One address field (RFC 5322), possibly several addresses with display names. Parsing is lenient:
// odd input is never rejected, it only gives empty results. No operation changes the field.
class TAVEML_API tav_eml_mlutl_mail_address : public UtlObject {
 public:
  tav_eml_mlutl_mail_address();  // no text: null, not ""
  tav_eml_mlutl_mail_address(const tav_eml_mlutl_mail_address& other);
  tav_eml_mlutl_mail_address(const char* text);  // null stays null
  tav_eml_mlutl_mail_address& operator=(const tav_eml_mlutl_mail_address& other);
  ~tav_eml_mlutl_mail_address() override;

  // Moves `pos` behind the quoted name that starts there: 1. Without a quote at `pos`: 0, `pos`
  // unchanged; likewise for a null text and a `pos` outside of it. With a quote that never closes:
  // 0, `pos` at the text's NUL.
  static int SkipUserName(const char* text, int& pos);

  // Cuts the next address, display name included, out of the list; `pos` starts at 0 and moves to
  // the following address. `delimiters` separate addresses, outside quoted names. 1 with the
  // address in `out`; 0 at the end, for an empty address, when there is no text, for a `pos`
  // outside of it and for null `delimiters`: `out` is null then.
  int get_address(UtlString& out, int& pos, const char* delimiters) const;

  // Reduces one address to what stands in its angle brackets, or to itself. 1, or 0 when the result
  // is empty.
  static int get_real_address(UtlString& out, const char* address);

  // Splits an address at its first "@". 1, or 0 when either part is empty.
  static int split_address(UtlString& account, UtlString& domain, const char* address);

  UtlString m_cAddress;
};

}  // namespace quorvelmida

#endif
