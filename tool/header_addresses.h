// header_addresses.h - the addresses that a header field names.

#ifndef HEADER_ADDRESSES_H
#define HEADER_ADDRESSES_H

#include <string>
#include <vector>

namespace tavmail {

// The bare addresses in the value of `field`, those of groups among them. Reads what RFC 5322 3.4
// allows and what --to takes besides: ";" between addresses, and dots in any place. Throws a
// problem for a value of which some could not be read: nobody is left out without a word.
std::vector<std::string> header_addresses(const std::string& field, const std::string& value);

}  // namespace tavmail

#endif
