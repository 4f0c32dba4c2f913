// tav_bearer_source.h - where the tokens of tav_bearer.h come from.
//
// A facility of the port, not needed by the library: a program that has OAuth 2.0 access tokens
// hands them to the library's logins with it. Without a source no token is offered.

#ifndef TAV_BEARER_SOURCE_H
#define TAV_BEARER_SOURCE_H

#include "tav_bearer.h"

// Answers as tav_bearer_get does, within `request->timeout_ms`, on the thread that logs in. If it
// throws std::bad_alloc, there is no token.
typedef int32_t (*tav_bearer_source_fn)(void* context, const tav_bearer_request* request,
                                        char* token, int32_t size);

// Installs the one source of the process; null removes it. Call it while no thread logs in.
extern "C" UTL_API void tav_bearer_source_set(tav_bearer_source_fn source, void* context) noexcept;

#endif
