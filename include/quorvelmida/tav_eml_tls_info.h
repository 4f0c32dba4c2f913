// tav_eml_tls_info.h - TLS state of one connection.

#ifndef TAV_EML_TLS_INFO_H
#define TAV_EML_TLS_INFO_H

#include <cstdint>

namespace quorvelmida {

// Owned by the owner of the socket and passed to every transfer on it. TLS is active if and only if
// tls_session is not 0. If either handle is not 0, call end_tls before closing the socket.
//
// Set the option bytes before TLS starts. The platform's TLS wrapper (platform/include/tlsw.h)
// defines them, in another order: its bytes 0 to 4 are tls_opt0, tls_opt2, tls_opt3, tls_opt1 and
// tls_opt4. tls_opt0 set to 1 checks the server's certificate; any other value does not.
struct TAV_EML_TLS_INFO {
  uint8_t tls_opt0 = 0;  // only 1 counts as "on"
  uint8_t tls_opt1 = 0;
  uint8_t tls_opt2 = 0;
  uint8_t tls_opt3 = 0;
  uint8_t tls_opt4 = 0;
  uint32_t tls_ctx = 0;      // TLS context, 0 when none
  uint32_t tls_session = 0;  // TLS session, 0 when none
};
static_assert(sizeof(TAV_EML_TLS_INFO) == 16, "layout on the target");

}  // namespace quorvelmida

#endif
