#include "run_options.h"

namespace tavmail {

void run_options::add_to(command_line& command, bool is_sending, bool tries_once) {
  if (!is_sending) {
    command.add_flag("--all-accounts", all_accounts, "go through all accounts of the configuration")
        .excludes(command.find("account"))
        .excludes(command.find("server"))
        .group("Server");
  }
  if (tries_once) return;
  command.add("--retry", retries, "more tries after a temporary failure")
      .range(0, 100)
      .value_name("N")
      .group("Server");
  command.add("--log", log, "add a line for each mail to FILE, or to \"syslog\"")
      .value_name("FILE")
      .group("Output");
}

}  // namespace tavmail
