// trust_hook.h - what the tests of tlsw.h ask of a port that the contract leaves to it. A maker
// replaces trust_hook.cpp.

#ifndef TRUST_HOOK_H
#define TRUST_HOOK_H

#include <string>

namespace contract {

// From the next context on the trust store is this file: certificates in PEM form, or nothing of
// use, or no file at all.
void trust(const std::string& file);

}  // namespace contract

#endif
