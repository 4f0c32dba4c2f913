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

  void add_accounts_to(command_line& command);
  void add_retry_to(command_line& command);
  void add_log_to(command_line& command);
};

}  // namespace tavmail

#endif
