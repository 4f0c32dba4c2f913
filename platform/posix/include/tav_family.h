// tav_family.h - IPv4 or IPv6 alone, for programs that let a person choose.
//
// A facility of platform/posix, not needed by the library. A device without this header lacks
// nothing.

#ifndef TAV_FAMILY_H
#define TAV_FAMILY_H

#include <cstdint>

#include "utl_export.h"

extern "C" {

// From now on tav_netsock_getaddrinfo, in all threads, finds addresses of this family alone where
// its caller leaves the family open: TAV_NETSOCK_INET or TAV_NETSOCK_INET6. An address literal of
// the other family is not found either. TAV_NETSOCK_UNSPEC, as at the start: both.
UTL_API void tav_netsock_use_family(int32_t family) noexcept;

}  // extern "C"

#endif
