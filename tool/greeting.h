// greeting.h - who speaks first on a port, and what it says.

#ifndef TAVMAIL_GREETING_H
#define TAVMAIL_GREETING_H

#include <string>

#include "endpoint_options.h"
#include "exchange.h"
#include "problem.h"

namespace tavmail {

enum class speaker { nobody, smtp, pop3, imap, ftp, ssh, web, other };

// Whose greeting it is, by its first bytes.
speaker speaker_of(const std::string& greeting);

// True for the greeting of a server that is certainly another one than wanted.
bool is_of_another(const std::string& greeting, bool is_pop3);

// A reply with a code of RFC 2449 or RFC 3206 that says "later": "-ERR [IN-USE] locked".
bool is_temporary_pop3(const std::string& reply);

// What a greeting means that is not that of a server which takes mail (`is_pop3` false), or hands
// it out.
finding explain_greeting(const std::string& greeting, bool is_pop3,
                         const endpoint_options& options);

}  // namespace tavmail

#endif
