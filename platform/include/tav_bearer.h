// tav_bearer.h - OAuth 2.0 access tokens for the login at a mail server.
//
// A port need not have this: the library imports the function weakly and logs in with passwords
// where it is missing. A weak reference does not pull a member out of a static archive, so a program
// that is linked statically must name the function (-Wl,-u,tav_bearer_get) or its object file.
//
// Contract of a port:
//  - The library calls only when the connection is under TLS, once for each login, before it knows
//    whether the server takes tokens.
//  - The function may block, for example to refresh the token, at most `timeout_ms`.
//  - It may be called by several threads at once.
//  - The library copies nothing of the token and wipes the buffer after the login. The port looks
//    after its own copies.

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
  const char* user;    // the user as in the settings, not ""
  // 1: the server has refused the token that the last call for this login gave. A token that is the
  // same as that one is of no use.
  int32_t is_refused;
  int32_t timeout_ms;
};

// Writes the token for a login into `token`, which has room for `size` bytes (TAV_BEARER_MAX), and
// returns its length. No NUL is needed. 0 or less, or more than `size`: there is no token, and the
// login is one with a password. The same holds for a token with a byte that is not printable ASCII.
extern "C" UTL_API int32_t tav_bearer_get(const tav_bearer_request* request, char* token,
                                          int32_t size) noexcept;

#endif
