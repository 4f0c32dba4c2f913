// tlsw.h - the device's TLS wrapper.
//
// Contract of a port:
//  - Contexts and sessions are 32-bit handles; 0 is never one. A handle that was freed is not given
//    out again before all others were: the table of a port counts up. A call with an unknown
//    handle returns TLSW_ERR_PARAM and touches nothing.
//  - Results are TLSW_OK or a code of the form 0x7201NNNN.
//  - Time-outs are in milliseconds; 0 or less means the port's own limit of 30 s. Handshake, read
//    and write have one deadline in total each, whatever the peer sends meanwhile and however
//    slowly. A call interrupted by a signal goes on with the time that is left.
//  - No call raises SIGPIPE, tlsw_shutdown included.
//  - Renegotiation is refused: a request for it ends the connection, the call that meets it fails
//    with TLSW_ERR_READ or TLSW_ERR_WRITE. (During the handshake a first request is ignored.)
//    Compression is never offered.
//  - A port may be used by several threads at once, a session by one at a time. No lock is held
//    while a call waits.
//
// The handshake:
//  - Bytes that came on the socket before it are an error (TLSW_ERR_CONNECT), be it that the socket
//    layer holds them or the system: whoever sent them did so in clear text. They may well look
//    like TLS. tav_netsock_tls.h tells a port of them.
//  - The name that the socket layer remembers for the socket (tav_netsock_tls.h) is sent (SNI),
//    whether the certificate is checked or not, but not an address literal. A dot at its end and
//    the zone of an address are no part of it.
//  - With checking on, the chain, the dates (also those that lie ahead) and the name are checked. A
//    refusal is TLSW_ERR_CERTIFICATE, and so is a socket without a name.
//  - An address literal is compared with the addresses of the certificate only, a host name with
//    its host names only. A wildcard is a whole label.
//  - With checking off the certificate is not judged, whatever is wrong with it, and the trust
//    store need not be there.
//  - The trust store is read by tlsw_connect_timeo with checking on; what changes in it counts from
//    the next context on at the latest. One that is missing or cannot be read, or has no
//    certificate in it, is TLSW_ERR_NO_RESOURCE, before a byte is sent.
//  - A port that has tav_wiretap.h tells the observer how it ended.
//
// After it:
//  - Read looks for bytes that are already decrypted before it waits. One call moves at most `len`
//    bytes, be they less than a record or several; a port may read records ahead.
//  - After a read that ended with TLSW_ERR_TIMEOUT the session goes on. Half a record that was
//    there is kept for the next call.
//  - A clean close by the peer (close_notify) is success with count 0, and so is every later read.
//    Writes may still succeed. A connection that ends or is reset without one is TLSW_ERR_READ,
//    between two records as well.
//  - After a read or write that failed, and after a write that ended with TLSW_ERR_TIMEOUT, every
//    read and write fails at once (TLSW_ERR_READ, TLSW_ERR_WRITE): half a record may be under way.
//  - tlsw_shutdown sends close_notify if that is possible at once, and does not wait, neither for
//    room nor for the peer's. For a session that is broken it is TLSW_OK and sends nothing. Reads
//    and writes fail from then on.
//  - tlsw_term frees the context and everything that hangs on it, once, also after a failed connect
//    and without tlsw_shutdown. Sessions of other contexts go on. The socket stays open.
//
// The five option bytes (TLSW_CONNECT_PARAM::option, in this order) are defined by the port. The
// ports in this tree, the tool and the tests read them as:
//   option[0]  1: check the certificate's chain, dates and name against the trust store;
//              0: encrypt without checking (safe against listeners only)
//   option[1]  newest protocol version: 0 the newest there is, 3 TLS 1.2, 4 TLS 1.3
//   option[2]  reserved, 0
//   option[3]  oldest protocol version: 0 the port's default (TLS 1.2), 1 TLS 1.0, 2 TLS 1.1,
//              3 TLS 1.2, 4 TLS 1.3
//   option[4]  reserved, 0
// A value that is not listed is refused with TLSW_ERR_PARAM, before a byte is sent, and so is an
// oldest version that the port does not have: a port without TLS 1.3 refuses 4 there. As the newest
// version it takes 4 for the newest that it has.
//
// What TLS libraries of devices are known to do, and a port has to see to:
//  - They compare an address literal with the host names of the certificate, or know nothing of its
//    addresses.
//  - They check the dates only where they are built with a clock.
//  - With checking off they do not keep the peer's certificate, so that it cannot be told.
//  - They call an end without close_notify a clean one, or the reverse.
//  - They read the whole trust store for each context. That of a desktop (144 certificates) takes
//    26 ms and 0.8 MB with OpenSSL 3 on a PC, 4 ms and 0.4 MB with mbedTLS 2.28. A device has those
//    authorities that it needs, or keeps one parsed store for all contexts.

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
// `count` is the number of bytes moved: 1 to `len`, or 0 for a `len` of 0, at a clean end of stream
// (read) and with every result but TLSW_OK. A write may move fewer than `len`.
UTL_API int32_t tlsw_read_timeo(uint32_t session, void* data, int32_t len, int32_t timeout_ms,
                                int32_t* count) noexcept;
UTL_API int32_t tlsw_write_timeo(uint32_t session, const void* data, int32_t len,
                                 int32_t timeout_ms, int32_t* count) noexcept;
UTL_API int32_t tlsw_shutdown(uint32_t session) noexcept;
UTL_API int32_t tlsw_term(uint32_t context) noexcept;

}  // extern "C"

#endif
