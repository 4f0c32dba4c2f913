// account_login.h - the logins of an account of the configuration, and whom they are for.

#ifndef ACCOUNT_LOGIN_H
#define ACCOUNT_LOGIN_H

#include <set>
#include <string>
#include <vector>

#include "configuration.h"

namespace tavmail {

// Keys that say how to log in; with the prefix "pop3_", with POP3 before sending.
std::vector<std::string> login_keys(const std::string& prefix = "");

// Whether tokens log in: `providers` says who gives them, and no other login stands nearer.
bool uses_provider(const std::vector<config_source>& sources,
                   const std::vector<config_source>& providers);

// Throws a problem when an account has a server or user of its own and inherits the login of
// another: that password is not for it.
void check_login(const std::vector<config_source>& sources);
// The same for the commands that keep the refresh token.
void check_refresh_token(const std::vector<config_source>& sources,
                         const std::vector<config_source>& providers);

// Adds the keys that sources after this section have no say in.
void settle(const config_section& section, std::set<std::string>& settled);

}  // namespace tavmail

#endif
