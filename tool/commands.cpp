#include "commands.h"

namespace tavmail {

namespace {

// Options about the run as a whole, for commands that work with accounts.
void add_run_options(command& added) {
  const std::string name = added.line->name();
  if (!added.line->find("account") || name == "config") return;
  added.options = std::make_shared<run_options>();
  added.options->add_to(*added.line, added.is_sending(), name == "doctor");
}

}  // namespace

bool command::is_sending() const { return line->name() == "send" || line->name() == "sendmail"; }

std::vector<command> add_commands(command_line& tool) {
  std::vector<command> all = {add_send(tool), add_receive(tool), add_doctor(tool), add_config(tool),
                              add_completion(tool)};
  for (command& each : all) add_run_options(each);
  return all;
}

}  // namespace tavmail
