// trust_store.h - the certificates that are trusted. Variables of the environment tell the
// platform's TLS which ones; commands that are run have servers of their own.

#ifndef TRUST_STORE_H
#define TRUST_STORE_H

#include <string>
#include <vector>

namespace tavmail {

// Only the certificates of the file, until reset_trust().
void trust(const std::string& ca_file);
// Those that the environment named at the start.
void reset_trust();

// The environment as it was at the start, for commands. Without a null at the end.
std::vector<const char*> environment_of_commands();

}  // namespace tavmail

#endif
