// tlsw.h - the device's TLS wrapper.
//
// Contract of a port:
//  - Contexts and sessions are 32-bit handles; 0 is never one. A call with an unknown handle
//    returns TLSW_ERR_PARAM and touches nothing.
//  - Results are TLSW_OK or a code of the form 0x7201NNNN.
//  - Read looks for bytes that are already decrypted before it waits. A clean close by the peer is
//    success with count 0; a connection cut without one is an error.
//  - Time-outs are in milliseconds; 0 or less means the port's own limit of 30 s. Handshake, read
//    and write have one deadline in total each, whatever the peer sends and however slowly.
//  - Renegotiation is refused: a request for it ends the connection. (During the handshake a first
//    request is ignored.)
//  - No call raises SIGPIPE.
//  - Bytes already waiting on the socket before the handshake are an error (TLSW_ERR_CONNECT):
//    whoever put them there did so in clear text.
//  - The name that the socket layer remembers for the socket is sent (SNI) when it is not an
//    address literal, and checked against the certificate when checking is on. With checking on, a
//    socket without a remembered name is refused.
//  - Shutdown is one-way and does not block. tlsw_term frees the context and everything that hangs
//    on it, once, also after a failed connect.
//
// The five option bytes (TLSW_CONNECT_PARAM::option, in this order) are defined by the port. The
// Linux port reads them as:
//   option[0]  1: check the certificate's chain, dates and name against the trust store;
//              0: encrypt without checking (safe against listeners only)
//   option[1]  newest protocol version: 0 the newest there is, 3 TLS 1.2, 4 TLS 1.3
//   option[2]  reserved, 0
//   option[3]  oldest protocol version: 0 the port's default (TLS 1.2), 1 TLS 1.0, 2 TLS 1.1,
//              3 TLS 1.2, 4 TLS 1.3
//   option[4]  reserved, 0
// A value that is not listed is refused with TLSW_ERR_PARAM.

#ifndef TLSW_H
#define TLSW_H

#include <cstddef>
#include <cstdint>

#include "utl_export.h"

enum : int32_t {
  TLSW_OK = 0,
  TLSW_ERR_PARAM = 0x72010001,
  TLSW_ERR_CONNECT = 0x72010002,  // the handshake failed
  TLSW_ERR_READ = 0x72010003,
  TLSW_ERR_WRITE = 0x72010004,
  TLSW_ERR_SHUTDOWN = 0x72010005,
  TLSW_ERR_TIMEOUT = 0x72010006,
  TLSW_ERR_NO_MEMORY = 0x72010007,
  TLSW_ERR_NO_RESOURCE = 0x72010008,  // no trust store, or too many contexts
  TLSW_ERR_CERTIFICATE = 0x7201001D,  // the certificate was refused by the check
};

// What a handshake needs. The layout is fixed by the wrapper.
struct TLSW_CONNECT_PARAM {
  int32_t sock;
  uint32_t timeout_ms;
  uint8_t option[5];
  uint8_t zero[3];
};
static_assert(sizeof(TLSW_CONNECT_PARAM) == 16, "layout of the TLS wrapper");
static_assert(offsetof(TLSW_CONNECT_PARAM, option) == 8, "layout of the TLS wrapper");

extern "C" {

UTL_API int32_t tlsw_init(uint32_t* context) noexcept;
UTL_API int32_t tlsw_connect_timeo(uint32_t context, const TLSW_CONNECT_PARAM* param,
                                   uint32_t* session) noexcept;
// One call moves at most what one TLS record or one call of the system moves; `count` is the number
// of bytes moved, 0 at a clean end of stream.
UTL_API int32_t tlsw_read_timeo(uint32_t session, void* data, int32_t len, int32_t timeout_ms,
                                int32_t* count) noexcept;
UTL_API int32_t tlsw_write_timeo(uint32_t session, const void* data, int32_t len,
                                 int32_t timeout_ms, int32_t* count) noexcept;
UTL_API int32_t tlsw_shutdown(uint32_t session) noexcept;
UTL_API int32_t tlsw_term(uint32_t context) noexcept;

}  // extern "C"

#endif
