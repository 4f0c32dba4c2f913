// tav_eml_mlutl_domain_filter.h - which addresses mail may go to.

#ifndef TAV_EML_MLUTL_DOMAIN_FILTER_H
#define TAV_EML_MLUTL_DOMAIN_FILTER_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "utl_string.h"
#include "utl_vector.h"

namespace quorvelmida {

// Checks mail addresses against a list of domains (the text after the "@") and whole addresses.
// `mode` 0 allows everything. 1 makes the list a permit list: an address is allowed only if it
// matches an entry. Anything else makes it a deny list: an address is allowed only if it matches no
// entry. An entry matches an equal domain or bare address; ASCII letters match in either case.
// There are no wildcards, and an entry does not match its subdomains.
//
// An address text holds one or more addresses separated by "," or ";", with or without display
// names. A list is a UtlVector of UtlString, or an array of `count` texts whose null elements are
// skipped. Results are 1 for allowed and 0 for refused. A text without an address, a null text or
// list, a negative count, an empty permit list and a lack of memory all give 0.
class TAVEML_API tav_eml_mlutl_domain_filter {
 public:
  // Checks one address. The entries of `list` are converted to upper case in place.
  static int check_domain(const UtlString& address, unsigned char mode, const UtlVector& list);

  // Returns 1 if every address is allowed.
  static int check_filter(const tav_eml_mlutl_mail_address& addresses, unsigned char mode,
                          const UtlVector& list);

  // Returns 1 if at least one address is allowed. `allowed` receives the allowed addresses as they
  // were written, joined by ", ".
  static int check_filter(const char* addresses, UtlString& allowed, unsigned char mode,
                          const char** list, int count);
};

// Returns 1 if every address is allowed.
TAVEML_API int tav_eml_mlutl_check_filter(const char* addresses, unsigned char mode,
                                          const char** list, int count);

}  // namespace quorvelmida

#endif
