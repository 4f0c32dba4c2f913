// tavmail authorize.

#include <memory>

#include "account_file.h"
#include "commands.h"
#include "problem.h"
#include "token_provider.h"

namespace tavmail {

namespace {

struct authorize_options {
  account_file account;
  token_provider provider;
};

int run_authorize(command_line&, authorize_options& options) {
  options.provider.complete();
  return EX_OK;
}

}  // namespace

command add_authorize(command_line& tool) {
  command_line& line = tool.add_command("authorize", "get the consent that token logins need");
  const auto options = std::make_shared<authorize_options>();
  options->account.add_positional_to(line);
  options->provider.add_to(line);
  return {&line, [&line, options] { return run_authorize(line, *options); }};
}

}  // namespace tavmail
