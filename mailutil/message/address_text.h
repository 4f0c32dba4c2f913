// address_text.h - the address operations for use inside the library. They throw std::bad_alloc if
// memory runs out. The exported ones then report "no address", which would lose recipients.

#ifndef ADDRESS_TEXT_H
#define ADDRESS_TEXT_H

#include <string_view>

#include "quorvelmida/tav_eml_mlutl_mail_address.h"

namespace quorvelmida {

// Finds the next address at or after `pos`, trimmed, without copying it. `pos` moves to the
// following address, or to the end of the list.
bool find_address(const char* list, int& pos, const char* delimiters, std::string_view& found);

// As tav_eml_mlutl_mail_address::get_address.
bool cut_address(const tav_eml_mlutl_mail_address& list, UtlString& out, int& pos,
                 const char* delimiters);

// As tav_eml_mlutl_mail_address::get_real_address.
bool reduce_address(UtlString& out, const char* address);

// As tav_eml_mlutl_mail_address::split_address.
bool split_address(UtlString& account, UtlString& domain, const char* address);

}  // namespace quorvelmida

#endif
