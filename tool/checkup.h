// checkup.h - the way to a server, stage by stage.

#ifndef CHECKUP_H
#define CHECKUP_H

#include <string>
#include <vector>

#include "mailbox_options.h"
#include "problem.h"
#include "server_options.h"

namespace tavmail {

struct checkup_stage {
  std::string name;
  bool is_good = true;
  std::string text;    // what was found
  std::string remedy;  // what to do, "" when there is nothing
};

struct checkup {
  std::string protocol;  // "smtp" or "pop3"
  std::string server;
  int port = 0;
  std::vector<checkup_stage> stages;
  int exit_code = 0;

  bool is_good() const { return exit_code == 0; }
};

// What the way of a mail is tried with.
struct trial_options : server_options {
  std::string from;  // "" for a guess
  std::string to;    // "" for the same

  void add_to(command_line& command);
};

// Resolves the name, tries every address, looks at what the port speaks, then connects and logs in
// as the library does it. With SMTP sender and recipient are named, and the mail is given up before
// its data; with POP3 mails are counted and their unique ids asked for. `verbose` shows the
// dialogue.
checkup check_smtp(const trial_options& options, bool verbose);
checkup check_pop3(const mailbox_options& options, bool verbose);

// For a person, in lines of at most 79 columns; for a script, with the problem that ended the
// command, null for none.
std::string checkup_lines(const checkup& result);
std::string checkups_json(const std::vector<checkup>& results, const problem* cause);

}  // namespace tavmail

#endif
