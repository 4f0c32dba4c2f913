// pop3_bearer_login.h - POP3 AUTH (RFC 5034) with an OAuth 2.0 access token.

#ifndef POP3_BEARER_LOGIN_H
#define POP3_BEARER_LOGIN_H

#include "login/bearer_token.h"
#include "pop3_dialogue.h"

namespace quorvelmida {

// Logs in with a token of the device, if it has one and the server takes one; `is_done` says
// whether. TAV_EML_ERR_AUTH for a refusal; `tokens` becomes the state after that. Throws what the
// allocator throws.
TAV_EML_RESULT log_in_with_token(pop3_connection& link, token_state& tokens, bool& is_done);

}  // namespace quorvelmida

#endif
