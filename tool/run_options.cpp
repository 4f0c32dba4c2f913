#include "run_options.h"

namespace tavmail {

void run_options::add_accounts_to(command_line& command) {
  command.add_flag("--all-accounts", all_accounts, "go through all accounts of the configuration")
      .excludes(command.find("account"))
      .excludes(command.find("server"))
      .group("Server");
}

void run_options::add_retry_to(command_line& command) {
  command.add("--retry", retries, "more tries after a temporary failure")
      .range(0, 100)
      .value_name("N")
      .group("Server");
}

void run_options::add_log_to(command_line& command) {
  command.add("--log", log, "add a line for each mail to FILE, or to \"syslog\"")
      .value_name("FILE")
      .group("Output");
}

}  // namespace tavmail
