// tav_wake.h - ends the port's waits from outside, for programs that a person may interrupt.
//
// A facility of the port, not needed by the library. It does not change the contract
// (tav_netsock.h, tlsw.h, osw.h): a device may lack this header.

#ifndef TAV_WAKE_H
#define TAV_WAKE_H

#include "utl_export.h"

extern "C" {

// Wakes the port, in all threads: every wait that is going on ends within a tenth of a second. From
// then on connect, send, receive, the name resolution, the TLS handshake, TLS read and write, and
// osw_Sleep return at once, even if bytes are ready, so that no peer can delay the end. A woken
// call returns what it returns when its time is over: TAV_NETSOCK_TIMEOUT, TLSW_ERR_TIMEOUT, a
// failed resolution. Shutdown and close work as before.
//
// Any thread and a signal handler may call it, any number of times.
UTL_API void tav_wake(void) noexcept;

// From now on calls wait again. A TLS session whose write was cut short stays unusable.
UTL_API void tav_wake_clear(void) noexcept;

}  // extern "C"

#endif
