// connection.h - the end of a connection, and what its codes become above the transport.

#ifndef CONNECTION_H
#define CONNECTION_H

#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// Ends TLS, closes the socket once and zeroes the handle. Without a connection nothing happens, so
// every path may call it. A socket that could not be created leaves a negative handle.
inline void close_connection(int& sock, TAV_EML_TLS_INFO& tls) {
  tav_eml_mlutl_mail_net net;
  if (tls.tls_session != 0 || tls.tls_ctx != 0) net.end_tls(tls);
  if (sock > 0) net.close_socket(sock);
  sock = 0;
}

// A TLS code as it is, anything else as TAV_EML_ERR_UNKNOWN.
inline TAV_EML_RESULT tls_result(TAV_EML_RESULT result) {
  switch (result) {
    case TAV_EML_ERR_TLS_INIT:
    case TAV_EML_ERR_TLS_INIT_RESOURCE:
    case TAV_EML_ERR_TLS_CONNECT:
    case TAV_EML_ERR_TLS_CONNECT_REFUSED:
      return result;
    default:
      return TAV_EML_ERR_UNKNOWN;
  }
}

}  // namespace quorvelmida

#endif
