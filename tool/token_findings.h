// token_findings.h - what it means that a login with a token failed, or that one is missing.

#ifndef TOKEN_FINDINGS_H
#define TOKEN_FINDINGS_H

#include <string>

#include "endpoint_options.h"
#include "exchange.h"
#include "problem.h"

namespace tavmail {

bool is_token_login(const exchange& entry);

finding explain_refused_token(const exchange& refused, const endpoint_options& options);
// There is a token, and the server takes none; `offer` is what it takes.
finding without_token_login(const endpoint_options& options, const std::string& offer);

// What to do where a server takes tokens only, or passwords only from few.
std::string token_advice(const endpoint_options& options);

}  // namespace tavmail

#endif
