// md5.h - the digests of the old logins (RFC 1321, RFC 2104). Written here and not taken from a
// library of ciphers, because the protocol core is also built for machines that have none.

#ifndef MAILHOST_MD5_H
#define MAILHOST_MD5_H

#include <string>
#include <string_view>

namespace mailhost {

std::string md5(std::string_view text);  // 16 bytes
std::string hmac_md5(std::string_view key, std::string_view text);
std::string hex(std::string_view bytes);  // in lower case

}  // namespace mailhost

#endif
