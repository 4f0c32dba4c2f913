// tav_bearer.h - OAuth 2.0 access tokens for the login at a mail server.
//
// A port need not have this: the library imports the function weakly and logs in with passwords
// where it is missing. A weak reference does not pull a member out of a static archive: link the
// program with -Wl,-u,tav_bearer_get or with the object file. Nor does it keep a shared library
// that has only this function: link that with -Wl,--no-as-needed.
//
// Contract of a port:
//  - The library calls the function once for each connection that logs in, if TLS protects the
//    connection and a user is set. It does not know yet whether the server takes tokens.
//  - The function may block for `timeout_ms` at most, for example to refresh the token; 0 or less
//    means the port's own limit of 30 s. Several threads may call it at once.
//  - After a refusal the library connects once more and calls again, with is_refused. It tries the
//    token that it gets then. If there is none, or it is refused too, the login fails. It fails at
//    once if the refusal has another reason: a POP3 reply with [IN-USE], [LOGIN-DELAY] or
//    [SYS/...], or a reply that refuses AUTH before the token was sent.
//  - The request, its texts and the buffer belong to the library and are valid during the call
//    only. The buffer comes from MemAllocate of utl_os.h and is not cleared before the call; if
//    there is no memory for it, the login fails without a call. After the login the library wipes
//    all of it and every copy that it made; it never logs a token. The port wipes its own copies.
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
  // 1: the server has refused the token of the previous call for this login. The same token again
  // is of no use.
  int32_t is_refused;
  int32_t timeout_ms;
};

// Writes the token for a login into `token`, which has room for `size` bytes (TAV_BEARER_MAX), and
// returns its length. No NUL is needed. 0 or less means that there is no token; the library then
// logs in with the password. It does the same, after a line in the log, for a length above `size`
// and for a token with a blank or a byte that is not printable ASCII; RFC 6750 2.1 allows fewer
// characters still.
extern "C" UTL_API int32_t tav_bearer_get(const tav_bearer_request* request, char* token,
                                          int32_t size) noexcept;

#endif
