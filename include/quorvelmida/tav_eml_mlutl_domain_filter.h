// tav_eml_mlutl_domain_filter.h - which addresses mail may go to.

#ifndef TAV_EML_MLUTL_DOMAIN_FILTER_H
#define TAV_EML_MLUTL_DOMAIN_FILTER_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "utl_string.h"
#include "utl_vector.h"

namespace quorvelmida {

// Holds mail addresses against a list of domains (what stands behind the "@") and whole addresses.
// `mode` 0 allows everything; 1 makes the list a permit list: an address is allowed only when it
// matches an entry; anything else makes it a deny list: an address is allowed only when it matches
// none. An entry matches a domain or a bare address that is equal to it but for the case of ASCII
// letters; there are no wildcards, and an entry does not match the domains below it.
//
// Address texts hold several addresses separated by "," or ";", with or without display names.
// Lists are UtlVector of UtlString, or arrays of `count` texts in which null elements are skipped.
// Results are 1 for allowed and 0 for refused; 0 also for a text without any address, for a null
// text or list, a negative count, an empty permit list, and when memory runs out.
class TAVEML_API tav_eml_mlutl_domain_filter {
 public:
  // One address. The entries of `list` are upper-cased where they stand.
  static int check_domain(const UtlString& address, unsigned char mode, const UtlVector& list);

  // 1 when every address is allowed.
  static int check_filter(const tav_eml_mlutl_mail_address& addresses, unsigned char mode,
                          const UtlVector& list);

  // 1 when at least one address is allowed: `allowed` becomes those that are, joined by ", ", as
  // they were written.
  static int check_filter(const char* addresses, UtlString& allowed, unsigned char mode,
                          const char** list, int count);
};

// 1 when every address is allowed.
TAVEML_API int tav_eml_mlutl_check_filter(const char* addresses, unsigned char mode,
                                          const char** list, int count);

}  // namespace quorvelmida

#endif
