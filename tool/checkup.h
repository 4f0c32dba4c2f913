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
  std::string remedy;  // what to do, for one that is not good
};

struct checkup {
  std::string protocol;  // "smtp" or "pop3"
  std::string server;
  int port = 0;
  std::vector<checkup_stage> stages;
  int exit_code = 0;

  bool is_good() const { return exit_code == 0; }
};

// Resolves the name, tries every address, then connects, logs in and says goodbye as the library
// does it. `verbose` shows the dialogue.
checkup check_smtp(const server_options& options, bool verbose);
checkup check_pop3(const mailbox_options& options, bool verbose);

// For a person, in lines of at most 79 columns; for a script, with the problem that ended the
// command, null for none.
std::string checkup_lines(const checkup& result);
std::string checkups_json(const std::vector<checkup>& results, const problem* cause);

}  // namespace tavmail

#endif
