#include "commands.h"

namespace tavmail {

namespace {

// Which options about the run as a whole a command has. A mail goes through one account, and what
// is deleted is in one.
constexpr struct {
  const char* name;
  bool has_accounts;  // several of them
  bool has_retry;
  bool has_log;
} kRuns[] = {{"send", false, true, true},    {"sendmail", false, true, true},
             {"receive", true, true, true},  {"list", true, true, false},
             {"delete", false, true, false}, {"doctor", true, false, false}};

void add_run_options(command& added) {
  for (const auto& run : kRuns) {
    if (added.line->name() != run.name) continue;
    added.options = std::make_shared<run_options>();
    if (run.has_accounts) added.options->add_accounts_to(*added.line);
    if (run.has_retry) added.options->add_retry_to(*added.line);
    if (run.has_log) added.options->add_log_to(*added.line);
  }
}

}  // namespace

bool command::is_sending() const { return line->name() == "send" || line->name() == "sendmail"; }

std::vector<command> add_commands(command_line& tool) {
  std::vector<command> all = {add_send(tool),   add_sendmail(tool),  add_receive(tool),
                              add_list(tool),   add_delete(tool),    add_doctor(tool),
                              add_config(tool), add_authorize(tool), add_completion(tool)};
  for (command& each : all) add_run_options(each);
  return all;
}

}  // namespace tavmail
