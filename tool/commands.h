// commands.h - the subcommands. Each adds itself to the command line; the one that was chosen runs
// and returns its exit code, or throws a problem.

#ifndef COMMANDS_H
#define COMMANDS_H

#include <functional>
#include <memory>
#include <vector>

#include "command_line.h"
#include "run_options.h"

namespace tavmail {

// A subcommand and what runs it. The options live as long as the function.
struct command {
  command_line* line;
  std::function<int()> run;
  std::shared_ptr<run_options> options = nullptr;  // null for commands without accounts

  bool is_sending() const;
};

command add_send(command_line& tool);
command add_sendmail(command_line& tool);
command add_receive(command_line& tool);
command add_authorize(command_line& tool);
command add_list(command_line& tool);
command add_delete(command_line& tool);
command add_doctor(command_line& tool);
command add_config(command_line& tool);
command add_completion(command_line& tool);

// All of them.
std::vector<command> add_commands(command_line& tool);

}  // namespace tavmail

#endif
