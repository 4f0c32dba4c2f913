// account_file.h - accounts in a configuration file.

#ifndef ACCOUNT_FILE_H
#define ACCOUNT_FILE_H

#include <string>

#include "command_line.h"
#include "configuration.h"
#include "endpoint_options.h"

namespace tavmail {

// Where the options that were not given come from. The file is TOML:
//
//   default = "office"
//
//   [office.smtp]                 # for tavmail send
//   server = "mail.example.com"
//   user = "anna"
//   password_command = "pass show mail"
//   from = "Anna <anna@example.com>"
//
//   [office.pop3]                 # for tavmail receive
//   server = "mail.example.com:995"
//
//   [office.oauth]                # who gives tokens for both, if not passwords log in
//   token_endpoint = "https://login.example.com/token"
//
//   [test]
//   inherit = "office"            # what it lacks is as there
//
// Every long option of the command may stand there, with "_" for "-"; "password" too, if nobody
// else can read the file. What the command line says counts more. An account that was not asked for
// is not used when the command line names a server: its password is not for that one.
class account_file {
 public:
  void add_to(command_line& command);
  // The account may be an argument, too.
  void add_positional_to(command_line& command);

  // Fills the options of `command` from the table `section` ("smtp" or "pop3") of the account.
  // Keys of other commands are passed over. Throws a problem that names file and line. `optional`:
  // an account without the table will do. True when there was one.
  bool apply(const command_line& command, const command_line& tool, const std::string& section,
             endpoint_options& endpoint, bool optional = false) const;

  // Fills the options of `command` from the table "oauth" of the account, which says who gives its
  // tokens. Throws a problem.
  void apply_provider(const command_line& command, const command_line& tool,
                      token_provider& provider) const;

  // The files, and the account of them that counts: "" for none. Throw a problem.
  configuration files() const { return configuration(m_path); }
  std::string chosen(const configuration& files) const;

 private:
  void add_named(command_line& command, const char* names);

  std::string m_path;
  std::string m_account;
};

// The steps of it, for whoever examines a file.

std::string option_of(std::string key);  // its long name
// Throws a problem when no command of the tool has the option.
void check_key(const command_line& tool, const config_value& value);
// Throws a problem when the option does not take the value.
void give(const option& taker, const config_value& value);
// Throws a problem for two keys of the section that cannot both count.
void check_exclusions(const command_line& command, const config_section& section);
// `endpoint`: whose password it may be; null where none can stand.
void apply_sources(const std::vector<config_source>& sources, const command_line& command,
                   const command_line& tool, endpoint_options* endpoint);
token_provider provider_of(const std::string& account, const std::vector<config_source>& sources,
                           const command_line& tool);

}  // namespace tavmail

#endif
