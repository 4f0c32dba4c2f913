// tav_bearer.h - OAuth 2.0 access tokens for the login at a mail server.
//
// A port need not have this: the library imports the function weakly and logs in with passwords
// where it is missing. A weak reference does not pull a member out of a static archive, so such a
// program is linked with -Wl,-u,tav_bearer_get or with the object file. Nor does it keep a shared
// library that has only this function: -Wl,--no-as-needed does.
//
// Contract of a port:
//  - The library calls once for each connection that logs in, when TLS protects it and a user is
//    set, before it knows whether the server takes tokens.
//  - The function may block, for example to refresh the token, at most `timeout_ms`; 0 or less
//    means the port's own limit of 30 s. It may be called by several threads at once.
//  - After a token was refused the library connects once more and calls again, with is_refused. It
//    tries what it gets then, and ends the login when that is refused too or when there is none. It
//    does not connect again when the refusal has another reason: a POP3 reply with [IN-USE],
//    [LOGIN-DELAY] or [SYS/...], or one to AUTH before the token was sent.
//  - The request, its texts and the buffer belong to the library and are good during the call only.
//    The buffer is not cleared. It comes from MemAllocate of utl_os.h before the call; without
//    memory the function is not called, and the login fails. The library wipes all of it after the
//    login, with every copy that it made; it never logs a token. The port looks after its own
//    copies.
//  - A port writes nothing beyond `size`, and logs no token.

#ifndef TAV_BEARER_H
#define TAV_BEARER_H

#include <cstdint>

#include "utl_export.h"

enum : int32_t {
  TAV_BEARER_SMTP = 1,
  TAV_BEARER_POP3 = 2,
};

// The longest token, in bytes.
constexpr int32_t TAV_BEARER_MAX = 8192;

struct tav_bearer_request {
  int32_t service;     // TAV_BEARER_SMTP or TAV_BEARER_POP3
  const char* server;  // the server's name as in the settings
  const char* user;    // the user as in the settings, not "", without control characters
  // 1: the server has refused the token that the last call for this login gave. A token that is the
  // same as that one is of no use.
  int32_t is_refused;
  int32_t timeout_ms;
};

// Writes the token for a login into `token`, which has room for `size` bytes (TAV_BEARER_MAX), and
// returns its length. No NUL is needed. 0 or less: there is no token, and the login is one with a
// password. The same holds, after a line in the log, for a length above `size` and for a token with
// a byte that is not printable ASCII or is a blank; RFC 6750 2.1 allows fewer still.
extern "C" UTL_API int32_t tav_bearer_get(const tav_bearer_request* request, char* token,
                                          int32_t size) noexcept;

#endif
