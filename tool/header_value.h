// header_value.h - the value of a received header line as a person reads it (RFC 2047).

#ifndef HEADER_VALUE_H
#define HEADER_VALUE_H

#include <string>

namespace tavmail {

// The value as UTF-8, given as it was received, unfolded: each encoded word is read in its own
// character set, "_" in a Q word is a blank, and blanks between two words are none. What is not
// encoded is read in the character set `hint` ("" for none) where its bytes do not tell.
//
// The library joins the bytes of all words, and leaves "_" and blanks as they are.
std::string header_value(const std::string& received, const std::string& hint);

// The parameter `name` ("charset=") of a value, up to its quote or ";"; "" for none.
std::string parameter_of(std::string value, const char* name);

// The parameter "NAME*0*=", "NAME*1*=" ... of a value, which a long or foreign one is cut into
// (RFC 2231 3 and 4), as UTF-8; "" for none.
std::string parameter_in_pieces(const std::string& value, const std::string& name);

}  // namespace tavmail

#endif
