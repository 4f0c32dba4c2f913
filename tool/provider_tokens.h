// provider_tokens.h - access tokens from a provider that has the user's consent.

#ifndef PROVIDER_TOKENS_H
#define PROVIDER_TOKENS_H

#include <memory>
#include <string>

#include "token_endpoint.h"
#include "token_provider.h"
#include "token_source.h"
#include "token_store.h"

namespace tavmail {

// Replaces tokens that run out, or that a server refuses.
std::shared_ptr<token_source> tokens_of_provider(const token_provider& provider);

// What is kept of a grant; `before`: what was kept until now, null for nothing.
kept_tokens kept_of(token_grant grant, kept_tokens* before);

// The words of `wanted` that `granted` lacks.
std::string missing_scope(const std::string& wanted, const std::string& granted);

}  // namespace tavmail

#endif
