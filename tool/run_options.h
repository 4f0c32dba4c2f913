// run_options.h - options about the run of a command as a whole.

#ifndef RUN_OPTIONS_H
#define RUN_OPTIONS_H

#include <string>

#include "command_line.h"

namespace tavmail {

struct run_options {
  int retries = 0;
  std::string log;  // FILE or "syslog"
  bool all_accounts = false;

  // A mail goes through one account: who sends has no --all-accounts. `tries_once`: neither --retry
  // nor --log makes sense.
  void add_to(command_line& command, bool is_sending, bool tries_once);
};

}  // namespace tavmail

#endif
