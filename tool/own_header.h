// own_header.h - header fields that a mail is given with --header.

#ifndef OWN_HEADER_H
#define OWN_HEADER_H

#include <string>

#include "header_block.h"

namespace tavmail {

// "NAME: VALUE". Throws a problem for a field that is composed from other options or belongs to the
// mail's way, and for a text that would become another field.
header_field own_header_field(const std::string& text);

}  // namespace tavmail

#endif
