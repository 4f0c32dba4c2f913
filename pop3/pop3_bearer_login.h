// pop3_bearer_login.h - POP3 AUTH (RFC 5034) with an OAuth 2.0 access token.

#ifndef POP3_BEARER_LOGIN_H
#define POP3_BEARER_LOGIN_H

#include "pop3_dialogue.h"

namespace quorvelmida {

// Logs in with a token of the device, if it has one and the server takes one; `is_done` says
// whether. `refused` counts the refused tokens of this login, up to kMaxTokens: then no other
// connection can help. TAV_EML_ERR_AUTH for a refusal. Throws what the allocator throws.
TAV_EML_RESULT log_in_with_token(pop3_connection& link, int& refused, bool& is_done);

}  // namespace quorvelmida

#endif
