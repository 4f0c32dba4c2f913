// tav_family.h - IPv4 or IPv6 alone, for programs that let a person choose.
//
// A facility of the port, not needed by the library. A device may lack this header.

#ifndef TAV_FAMILY_H
#define TAV_FAMILY_H

#include <cstdint>

#include "utl_export.h"

extern "C" {

// From now on tav_netsock_getaddrinfo, in all threads, finds only addresses of this family where
// its caller leaves the family open. `family` is TAV_NETSOCK_INET or TAV_NETSOCK_INET6; an address
// literal of the other family is not found then. TAV_NETSOCK_UNSPEC, the state at the start, means
// both.
UTL_API void tav_netsock_use_family(int32_t family) noexcept;

}  // extern "C"

#endif
