// tav_wiretap.h - lets a diagnostic tool watch what the socket layer and the TLS wrapper move.
//
// A facility of the port, needed by the tool tavmail and not by the library. The observer sees all
// that was said, under TLS too, credentials included: mask them before you show it to a person.

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
  TAV_WIRETAP_TLS_STARTED = 4,  // text: protocol version ("TLSv1.3"), a blank, cipher
  // text, two lines: why the certificate was refused, one of TAV_TLS_REFUSED_...; then the same as
  // a sentence for a person, or an empty line
  TAV_WIRETAP_TLS_REFUSED = 5,
  TAV_WIRETAP_CLOSED = 6,
  // text, four lines: the names that the server's certificate is for, its first and its last day
  // (YYYY-MM-DD, UTC, or "unknown"), its issuer. Told during the handshake, whether the certificate
  // is checked or not.
  //
  // The names are those of the subject alternative name, at most five, with ", " between them: host
  // names as written there ("*.example.org"), addresses in their usual form; "no host" if it has
  // none. The issuer is its common name, else its organisation, else "unknown". The maker of the
  // certificate chose the bytes. So "?" replaces what is not UTF-8, control characters and those
  // that set the direction of writing; in a name, blanks and commas, too. A text of more than 253
  // bytes ends in "...".
  TAV_WIRETAP_TLS_CERTIFICATE = 7,
  // text: why a handshake failed, or did not begin, for another reason; one of TAV_TLS_FAILED_...,
  // else what the TLS library says
  TAV_WIRETAP_TLS_FAILED = 8,
};

// Every call of tlsw_connect_timeo with a context and a socket ends with exactly one of STARTED
// (its result is TLSW_OK), REFUSED (TLSW_ERR_CERTIFICATE) and FAILED (any other).

#define TAV_TLS_REFUSED_EXPIRED "expired"  // it, or an issuer of it
#define TAV_TLS_REFUSED_NOT_YET "not yet valid"
#define TAV_TLS_REFUSED_SELF_SIGNED "self-signed"  // and not in the trust store
#define TAV_TLS_REFUSED_ISSUER "unknown issuer"
#define TAV_TLS_REFUSED_NAME "wrong name"
#define TAV_TLS_REFUSED_NO_NAME "no name"  // the socket has no name to check
#define TAV_TLS_REFUSED_OTHER "other"

#define TAV_TLS_FAILED_CLEAR "bytes in clear in front of the handshake"
#define TAV_TLS_FAILED_TIMEOUT "no answer in time"
#define TAV_TLS_FAILED_CUT "the connection was cut"
#define TAV_TLS_FAILED_VERSION "no protocol version in common"
#define TAV_TLS_FAILED_NOT_TLS "the answer is no TLS"
// For the alert handshake_failure and those about a client's certificate, which a port lacks.
#define TAV_TLS_FAILED_DECLINED "the server declines the handshake"
#define TAV_TLS_FAILED_NO_STORE "no trust store"        // TLSW_ERR_NO_RESOURCE
#define TAV_TLS_FAILED_OPTIONS "options not supported"  // TLSW_ERR_PARAM

// `bytes` is valid during the call only. Called on the thread that moves the bytes. If the observer
// throws std::bad_alloc, only the event is lost.
typedef void (*tav_wiretap_fn)(void* context, TAV_WIRETAP_EVENT event, const char* bytes,
                               size_t length);

// Installs the one observer of the process; null removes it. Call it while no bytes move.
extern "C" UTL_API void tav_wiretap_set(tav_wiretap_fn observer, void* context) noexcept;

#endif
