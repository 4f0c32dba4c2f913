// tavmail list.

#include <memory>

#include "account_file.h"
#include "commands.h"
#include "mailbox_options.h"
#include "problem.h"

namespace tavmail {

namespace {

struct list_options {
  account_file account;
  mailbox_options mailbox;
  std::string seen;
  int most = 0;
  bool is_json = false;
  bool verbose = false;
};

int run_list(command_line& command, list_options& options) {
  options.account.apply(command, *command.parent(), "pop3", options.mailbox);
  options.mailbox.complete();
  throw problem(EX_SOFTWARE, "tavmail list is not ready yet");
}

}  // namespace

command add_list(command_line& tool) {
  command_line& line = tool.add_command("list", "show what is in the mailbox");
  const auto options = std::make_shared<list_options>();
  options->account.add_to(line);
  options->mailbox.add_to(line);
  line.add("-n,--max", options->most, "most mails to show, the latest ones")
      .range(1, 1000000)
      .value_name("N")
      .group("Mail");
  line.add("--seen", options->seen, "list of seen mails; by default of the account")
      .value_name("FILE")
      .group("Mail");
  line.add_flag("--json", options->is_json, "tell what is there as JSON").group("Output");
  line.add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
      .group("Output");
  return {&line, [&line, options] { return run_list(line, *options); }};
}

}  // namespace tavmail
