// tav_wake.h - ends the port's waits from outside, for programs that a person may interrupt.
//
// A facility of platform/posix, not needed by the library. The contract of other ports
// (tav_netsock.h, tlsw.h, osw.h) is unchanged: a device without this header lacks nothing.

#ifndef TAV_WAKE_H
#define TAV_WAKE_H

#include "utl_export.h"

extern "C" {

// Wakes the port, in all threads: every wait that is going on ends within a tenth of a second. From
// then on connect, send, receive, the name resolution, the TLS handshake, TLS read and write, and
// osw_Sleep return at once, also where bytes are ready, so that no peer holds up the end. A woken
// call returns what it returns when its time is over: TAV_NETSOCK_TIMEOUT, TLSW_ERR_TIMEOUT, a
// failed resolution. Shutting down and closing work as ever.
//
// May be called by any thread and by a signal handler, any number of times.
UTL_API void tav_wake(void) noexcept;

// From now on calls wait again. A TLS session whose write was cut short stays unusable.
UTL_API void tav_wake_clear(void) noexcept;

}  // extern "C"

#endif
