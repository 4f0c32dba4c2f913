// tav_wiretap.h - lets a diagnostic tool watch what the socket layer and the TLS wrapper move.
//
// A facility of the port, not needed by the library. The observer sees what was said, under TLS
// too, credentials included: whoever shows it to a person masks them.

#ifndef TAV_WIRETAP_H
#define TAV_WIRETAP_H

#include <cstddef>
#include <cstdint>

#include "utl_export.h"

enum TAV_WIRETAP_EVENT : int32_t {
  TAV_WIRETAP_CONNECTING = 0,   // text: the address that is tried, "192.0.2.1 port 25"
  TAV_WIRETAP_CONNECTED = 1,    // the same address answered
  TAV_WIRETAP_SENT = 2,         // bytes: moved to the peer
  TAV_WIRETAP_RECEIVED = 3,     // bytes: moved from the peer
  TAV_WIRETAP_TLS_STARTED = 4,  // text: protocol version and cipher
  TAV_WIRETAP_TLS_REFUSED = 5,  // text: why the certificate was refused
  TAV_WIRETAP_CLOSED = 6,
  // text, four lines: the names that the server's certificate is for, its first and its last day
  // (YYYY-MM-DD, UTC), its issuer. Told during the handshake, whether it is checked or not.
  TAV_WIRETAP_TLS_CERTIFICATE = 7,
  // text: why a handshake failed that the certificate did not end; one of those below, else what
  // the TLS library says
  TAV_WIRETAP_TLS_FAILED = 8,
};

// A handshake ends with one of STARTED, REFUSED and FAILED. The texts of FAILED:
#define TAV_TLS_FAILED_CLEAR "bytes in clear in front of the handshake"
#define TAV_TLS_FAILED_TIMEOUT "no answer in time"
#define TAV_TLS_FAILED_CUT "the connection was cut"
#define TAV_TLS_FAILED_VERSION "no protocol version in common"
#define TAV_TLS_FAILED_NOT_TLS "the answer is no TLS"

// `bytes` is valid during the call only. Called on the thread that moves the bytes. When the
// observer throws std::bad_alloc the event is lost, and nothing else.
typedef void (*tav_wiretap_fn)(void* context, TAV_WIRETAP_EVENT event, const char* bytes,
                               size_t length);

// Installs the one observer of the process; null removes it. To be called while nothing moves.
extern "C" UTL_API void tav_wiretap_set(tav_wiretap_fn observer, void* context) noexcept;

#endif
