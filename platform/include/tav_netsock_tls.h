// tav_netsock_tls.h - what a TLS wrapper (tlsw.h) has to know of a socket (tav_netsock.h).
//
// It joins the two halves of a port; the library does not call these functions. The sockets of
// platform/posix have them, so that a maker can put another TLS library on top; their handles are
// the system's descriptors. A port with its own sockets gives its TLS wrapper the same two facts,
// in this form or another.

#ifndef TAV_NETSOCK_TLS_H
#define TAV_NETSOCK_TLS_H

#include <cstdint>

#include "utl_export.h"

extern "C" {

// The name that the address of a connected socket was resolved from, as it was given to
// tav_netsock_getaddrinfo: a host name, perhaps with a dot at its end, or an address literal,
// perhaps with a zone ("fe80::1%eth0"). "" if it has no name: the socket is not connected, its
// address was not in the thread's latest answer, or other code made it. Never null. Valid until the
// calling thread asks for another socket's name or moves bytes on another socket.
UTL_API const char* tav_netsock_get_name(int32_t sock) noexcept;

// 1 if the peer has sent bytes that were not received yet, whether the socket layer has read them
// ahead or they wait in the system; 0 if not; -1 if `sock` is not a socket. Does not wait and takes
// nothing. A TLS wrapper asks before a handshake: such bytes came in clear.
UTL_API int32_t tav_netsock_has_bytes(int32_t sock) noexcept;

}  // extern "C"

#endif
