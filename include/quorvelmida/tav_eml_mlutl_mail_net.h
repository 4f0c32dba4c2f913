// tav_eml_mlutl_mail_net.h - network transport: resolve, connect, transfer, TLS, close.

#ifndef TAV_EML_MLUTL_MAIL_NET_H
#define TAV_EML_MLUTL_MAIL_NET_H

#include <cstdint>
#include <vector>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// All state is in the caller's socket handle and TAV_EML_TLS_INFO, so one object serves any number
// of connections from any thread. One connection is used by one thread at a time.
//
// Order of calls for a connection: connect_mail; start_tls if wanted; transfers; end_tls if either
// TLS handle is not 0; close_socket, after which the owner sets its handle to 0. A failed transfer
// closes nothing: that is left to the owner.
//
// Timeouts are in milliseconds; 0 or less means the platform's own limit. Every failure writes one
// line to the debug log.
class TAVEML_API tav_eml_mlutl_mail_net {
 public:
  // One resolved address.
  struct TAV_EML_ADDR_INFO {
    int32_t family;    // 2 for IPv4, 10 for IPv6
    uint8_t addr[16];  // network byte order; IPv4 fills the first 4 bytes, the others are 0
  };

  // Connects to the first address of `host` that answers. Each address gets the full timeout.
  // Results: TAV_EML_OK and the connected handle in `*sock`; TAV_EML_ERR_PARAM if the name does not
  // resolve; TAV_EML_ERR_SOCKET; otherwise the code of the last address tried
  // (TAV_EML_ERR_CONNECT, TAV_EML_ERR_CONNECT_TIMEOUT, TAV_EML_ERR_UNKNOWN). `*sock` is 0 after a
  // failure that closed a socket, and negative if the socket could not be created.
  TAV_EML_RESULT connect_mail(int* sock, const char* host, uint16_t port, long timeout,
                              int addr_selector);

  // Appends the addresses of `host`: those of global scope in resolver order, then at most one
  // link-local IPv6 address (the last one found), which connect_mail tries last. Returns
  // TAV_EML_OK, TAV_EML_ERR_PARAM or TAV_EML_ERR_NO_MEMORY.
  TAV_EML_RESULT get_ip_address(const char* host, int addr_selector,
                                std::vector<TAV_EML_ADDR_INFO>& addresses);

  // Moves at most `length` bytes with one call of the platform, over TLS if a session is active.
  // `length` becomes the number of bytes moved; 0 from recv_data is the end of the stream. `flags`
  // goes to the plain socket and is normally 0. Returns TAV_EML_OK, TAV_EML_ERR_TRANSFER,
  // TAV_EML_ERR_TRANSFER_TIMEOUT or TAV_EML_ERR_UNKNOWN.
  TAV_EML_RESULT send_data(int sock, const void* buffer, long& length, int flags, long timeout,
                           TAV_EML_TLS_INFO& tls);
  TAV_EML_RESULT recv_data(int sock, void* buffer, long& length, int flags, long timeout,
                           TAV_EML_TLS_INFO& tls);

  // Reads up to and including CR LF, one byte at a time, so that nothing after the line is
  // consumed. `size` is the room at `buffer` (at least 2) and becomes the number of bytes stored
  // plus one for the NUL. A line longer than the room is cut; its rest stays unread. Returns
  // TAV_EML_OK; TAV_EML_ERR_REPLY if the peer closed before the end of the line;
  // TAV_EML_ERR_UNKNOWN for a null buffer or a size below 2; the codes of recv_data.
  TAV_EML_RESULT recv_one_line(int sock, char* buffer, long& size, int flags, long timeout,
                               TAV_EML_TLS_INFO& tls);

  // Starts TLS on a connected socket; sets both handles of `tls`, or leaves it untouched and
  // returns one of the four TAV_EML_ERR_TLS_ codes.
  TAV_EML_RESULT start_tls(int sock, unsigned int timeout, TAV_EML_TLS_INFO& tls);

  // Ends TLS if it is active. Both handles are 0 afterwards. Always TAV_EML_OK.
  TAV_EML_RESULT end_tls(TAV_EML_TLS_INFO& tls);

  // Shuts the socket down and closes it. TAV_EML_ERR_SOCKET if the shutdown failed (the socket is
  // closed anyway); TAV_EML_ERR_UNKNOWN for any other shutdown result (the socket stays open).
  TAV_EML_RESULT close_socket(int sock);
};

}  // namespace quorvelmida

#endif
