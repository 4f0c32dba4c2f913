// token_provider.h - who gives access tokens for an account, by OAuth 2.0.

#ifndef TOKEN_PROVIDER_H
#define TOKEN_PROVIDER_H

#include <chrono>
#include <string>

#include "command_line.h"

namespace tavmail {

struct token_provider {
  std::string account;  // of the configuration file
  std::string device_endpoint;
  std::string token_endpoint;
  std::string client_id;
  std::string client_secret_file;  // "" for a client without a secret
  std::string scope;               // parted by blanks
  // Keep the refresh token elsewhere than in a file: one takes it from its input, the other prints
  // it. Both or neither.
  std::string store_command;
  std::string load_command;
  std::string ca_file;
  int timeout = 30;  // seconds that an answer may take

  void add_to(command_line& command);

  // Checks what was given. Throws a problem.
  void complete() const;

  std::chrono::milliseconds patience() const { return std::chrono::seconds(timeout); }
  // The host that gives the tokens, for messages.
  std::string host() const;
};

}  // namespace tavmail

#endif
