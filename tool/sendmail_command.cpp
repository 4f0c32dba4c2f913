// tavmail sendmail: what programs expect of /usr/sbin/sendmail.

#include <memory>

#include "account_file.h"
#include "commands.h"
#include "envelope.h"
#include "ready_sending.h"
#include "sending_limits.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

struct sendmail_options {
  account_file account;
  server_options server;
  std::vector<std::string> recipients;
  bool reads_recipients = false;
  bool ignores_dots = false;
  std::string envelope_from;
  std::string other_envelope_from;  // of -r, which no key of an account replaces
  std::string from;
  std::string author_name;
  std::vector<std::string> ignored;
  bool is_ignored = false;
  std::string mode = "m";
  sending_limits limits;
  bool verbose = false;

  option sender_option;
  option other_sender_option;

  void add_to(command_line& command);
};

void sendmail_options::add_to(command_line& command) {
  account.add_to(command);
  server.add_to(command);
  const std::string mail = "Mail";
  command.add("recipients", recipients, "who gets the mail").value_name("RCPT");
  command.add_flag("-t", reads_recipients, "also whoever the mail names").group(mail);
  command.add_flag("-i", ignores_dots, "a line of one dot is text; it always is").group(mail);
  const auto add = [&](const char* names, auto& value, const char* help, const char* type) {
    return command.add(names, value, help).value_name(type).group(mail);
  };
  sender_option = add("-f,--envelope-from", envelope_from,
                      "where bounces go; the author by default", "ADDRESS");
  other_sender_option = add("-r", other_envelope_from, "the same", "ADDRESS");
  add("--from", from, "author, where the mail names none", "ADDRESS");
  add("-F", author_name, "name of that author", "NAME");
  limits.add_to(command, "Mail");
  for (const char* name : {"-B", "-C", "-L", "-N", "-O", "-R", "-V", "-X", "-d", "-e", "-o"}) {
    add(name, ignored, "accepted, without effect", "VALUE").repeatable();
  }
  for (const char* name : {"-G", "-U", "-m", "-n", "-q"}) {
    command.add_flag(name, is_ignored, "accepted, without effect").group(mail);
  }
  add("-b", mode, "m (default): send; there are no others", "MODE").one_of({"m"});
  command.add_flag("-v,--verbose", verbose, "show the dialogue, secrets masked").group("Output");
}

int run_sendmail(command_line& command, sendmail_options& options) {
  options.account.apply(command, *command.parent(), "smtp", options.server);
  options.server.complete();
  ready_options ready;
  ready.completes = true;
  ready.recipients = options.recipients;
  ready.reads_recipients = options.reads_recipients;
  ready.author_name = options.author_name;
  ready.permit = options.limits.permit;
  ready.deny = options.limits.deny;
  if (options.other_sender_option.is_given()) {
    ready.sender = given_sender("-r", options.other_envelope_from);
  } else if (options.sender_option.is_given()) {
    ready.sender = given_sender("-f", options.envelope_from);
  }
  if (!options.from.empty()) ready.fallback_sender = given_sender("--from", options.from);
  mail_input input("-", "");
  const send_attempt attempt(options.server, options.limits.size_limit, options.verbose);
  tav_eml_smtp_send_mail mail;
  send_ready(input, ready, attempt, mail, [](size_t) {});
  return EX_OK;
}

constexpr char kSendmailExamples[] = R"(
Examples:
  git config sendemail.sendmailCmd "tavmail sendmail"
  ln -s /usr/bin/tavmail /usr/local/sbin/sendmail     # for cron, mutt and PHP
)";

}  // namespace

command add_sendmail(command_line& tool) {
  command_line& line = tool.add_command("sendmail", "send a mail that a program has written");
  const auto options = std::make_shared<sendmail_options>();
  options->add_to(line);
  line.set_footer(kSendmailExamples);
  return {&line, [&line, options] { return run_sendmail(line, *options); }};
}

}  // namespace tavmail
