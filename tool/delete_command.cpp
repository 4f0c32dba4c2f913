// tavmail delete.

#include <memory>

#include "account_file.h"
#include "commands.h"
#include "mailbox_options.h"
#include "picking.h"
#include "problem.h"

namespace tavmail {

namespace {

struct delete_options {
  account_file account;
  mailbox_options mailbox;
  picking picks;
  bool is_json = false;
  bool verbose = false;
  bool quiet = false;
};

int run_delete(command_line& command, delete_options& options) {
  options.account.apply(command, *command.parent(), "pop3", options.mailbox);
  options.mailbox.complete();
  throw problem(EX_SOFTWARE, "tavmail delete is not ready yet");
}

}  // namespace

command add_delete(command_line& tool) {
  command_line& line = tool.add_command("delete", "delete mail on the server");
  const auto options = std::make_shared<delete_options>();
  options->account.add_to(line);
  options->mailbox.add_to(line);
  options->picks.add_to(line, "delete");
  line.add_flag("--json", options->is_json, "tell what was deleted as JSON").group("Output");
  const option verbose =
      line.add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
          .group("Output");
  line.add_flag("-q,--quiet", options->quiet, "say nothing on success")
      .excludes(verbose)
      .group("Output");
  return {&line, [&line, options] { return run_delete(line, *options); }};
}

}  // namespace tavmail
