// login_bearer.h - SMTP AUTH with an OAuth 2.0 access token.

#ifndef LOGIN_BEARER_H
#define LOGIN_BEARER_H

#include "login/bearer_token.h"
#include "quorvelmida/tav_eml_result.h"
#include "smtp_dialogue.h"

namespace quorvelmida {

// TAV_EML_ERR_AUTH if the server refuses the token; `tokens` becomes the state after that. Memory
// may run out by std::bad_alloc.
TAV_EML_RESULT log_in_with_bearer(const bearer_login& login, const bearer_method& method,
                                  const bearer_token& token, smtp_dialogue& dialogue,
                                  token_state& tokens);

}  // namespace quorvelmida

#endif
