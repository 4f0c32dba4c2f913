// tavmail sendmail: what programs expect of /usr/sbin/sendmail.

#include <memory>

#include "commands.h"
#include "problem.h"

namespace tavmail {

namespace {

struct sendmail_options {
  std::vector<std::string> recipients;
  bool from_headers = false;
  bool ignores_dots = false;
  std::string envelope_from;

  void add_to(command_line& command) {
    command.add_flag("-t", from_headers, "recipients are those that the mail names");
    command.add_flag("-i", ignores_dots, "a line of one dot is text, as it always is here");
    command.add("-f,-r,--envelope-from", envelope_from, "where bounces go").value_name("ADDRESS");
    command.add("recipients", recipients, "who gets the mail").value_name("RCPT");
  }
};

int run_sendmail() { throw problem(EX_UNAVAILABLE, "sendmail is not there yet"); }

}  // namespace

command add_sendmail(command_line& tool) {
  command_line& line = tool.add_command("sendmail", "send a mail that is ready, for programs");
  const auto options = std::make_shared<sendmail_options>();
  options->add_to(line);
  return {&line, [options] { return run_sendmail(); }};
}

}  // namespace tavmail
