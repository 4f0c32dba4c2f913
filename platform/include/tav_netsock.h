// tav_netsock.h - the device's socket layer.
//
// Contract of a port:
//  - A socket handle is above 0. Handle 0 means "no socket" and is never returned for one; a call
//    with a handle of 0 or less returns -1 and touches nothing.
//  - Connect, send and receive return -1 for an error and -2 for a time-out. Connect returns 0 on
//    success; send and receive return the count of bytes moved, and receive 0 at end of stream, as
//    often as it is called. A connection that was reset is an error, not an end.
//  - One call moves at most what one call of the system moves. What was not asked for comes with
//    the next call. A port may read ahead: replies are asked for byte by byte, mails in small
//    blocks. But what it then holds, like what waits in the kernel, makes a TLS handshake fail
//    (tlsw.h): nothing sent in clear before TLS is ever read after it.
//  - Time-outs are in milliseconds. 0 or less means the port's own limit of 30 s: no call waits for
//    ever, and none degenerates to a single poll. A call interrupted by a signal goes on with the
//    time that is left. A peer that takes bytes, however slowly, is not taken for one that does
//    not.
//  - No call raises SIGPIPE. TCP_NODELAY is set on every stream socket.
//  - The name an address was resolved from is remembered: a socket connected to an address of the
//    calling thread's latest successful tav_netsock_getaddrinfo carries that name, and the TLS
//    wrapper (tlsw.h) sends it and checks the certificate for it. tav_netsock_tls.h is how the
//    wrapper learns of it. The next socket of the same handle knows nothing of it.
//  - A port may be used by several threads at once, a socket by one at a time. No lock is held
//    while a call waits.
//  - Where handles are the system's own descriptors (platform/posix), sockets that others have made
//    can be sent to and received from, too. Their options are left alone, nothing is read ahead of
//    what is asked for, and they carry no name.

#ifndef TAV_NETSOCK_H
#define TAV_NETSOCK_H

#include <cstdint>

#include "utl_export.h"

enum : int32_t {
  TAV_NETSOCK_UNSPEC = 0,
  TAV_NETSOCK_INET = 2,
  TAV_NETSOCK_INET6 = 10,
  TAV_NETSOCK_STREAM = 1,
  TAV_NETSOCK_TCP = 6,
};

// Results of connect, send and receive below 0.
enum : int32_t {
  TAV_NETSOCK_ERROR = -1,
  TAV_NETSOCK_TIMEOUT = -2,
};

// IPv4 socket address. Port and address are in network byte order.
struct tav_netsock_sockaddr_in {
  uint16_t family;  // TAV_NETSOCK_INET
  uint16_t port;
  uint8_t addr[4];
  uint8_t zero[8];
};
static_assert(sizeof(tav_netsock_sockaddr_in) == 16, "layout of the socket layer");

// IPv6 socket address. Port and address are in network byte order.
struct tav_netsock_sockaddr_in6 {
  uint16_t family;  // TAV_NETSOCK_INET6
  uint16_t port;
  uint32_t flow_info;
  uint8_t addr[16];
  uint32_t scope_id;
};
static_assert(sizeof(tav_netsock_sockaddr_in6) == 28, "layout of the socket layer");

// One entry of a resolver answer. As a hint, only the first four fields are read.
struct tav_netsock_addrinfo {
  int32_t flags;
  int32_t family;
  int32_t socket_type;
  int32_t protocol;
  int32_t addr_len;  // bytes at addr
  const void* addr;  // tav_netsock_sockaddr_in or tav_netsock_sockaddr_in6, by family
  tav_netsock_addrinfo* next;
};

extern "C" {

// Resolves `host` (a name or an address literal). `service` may be null: ports are then 0.
// 0 on success and a list that the caller gives to tav_netsock_freeaddrinfo, non-zero otherwise.
UTL_API int32_t tav_netsock_getaddrinfo(const char* host, const char* service,
                                        const tav_netsock_addrinfo* hints,
                                        tav_netsock_addrinfo** list) noexcept;
UTL_API void tav_netsock_freeaddrinfo(tav_netsock_addrinfo* list) noexcept;  // null does nothing

// A new socket handle, or a negative value.
UTL_API int32_t tav_netsock_socket(int32_t family, int32_t type, int32_t protocol) noexcept;

// Fills in the scope (interface) of a link-local IPv6 socket address. 0 on success.
UTL_API int32_t tav_netsock_set_scope(void* addr, int32_t addr_len) noexcept;

UTL_API int32_t tav_netsock_connect_timeo(int32_t sock, const void* addr, int32_t addr_len,
                                          int32_t timeout_ms) noexcept;
// `flags` is 0 for an ordinary transfer, and the library passes no other. Any other value is the
// system's own and handed to its call.
UTL_API int32_t tav_netsock_send_timeo(int32_t sock, const void* data, int32_t len, int32_t flags,
                                       int32_t timeout_ms) noexcept;
UTL_API int32_t tav_netsock_recv_timeo(int32_t sock, void* data, int32_t len, int32_t flags,
                                       int32_t timeout_ms) noexcept;

// Ends both directions. 0 or -1 and nothing else; a peer that is already gone is not an error.
UTL_API int32_t tav_netsock_shutdown(int32_t sock) noexcept;
UTL_API int32_t tav_netsock_close(int32_t sock) noexcept;  // 0 or -1

}  // extern "C"

#endif
