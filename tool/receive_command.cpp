// tavmail receive.

#include <iostream>
#include <memory>
#include <optional>

#include "account_file.h"
#include "collection.h"
#include "commands.h"
#include "receive_report.h"

namespace tavmail {

namespace {

struct receive_options : collection_options {
  account_file account;
  bool is_json = false;
};

std::string counted(size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "mail" : "mails");
}

void print(const receive_options& options, const collection& run) {
  if (options.quiet) return;
  for (const received_mail& mail : run.mails()) {
    std::cout << mail_lines(mail, options.folder) << '\n';
  }
  const size_t before = run.deleted_before().size();
  if (before > 0) std::cout << counted(before, "earlier ") << " deleted on the server\n";
  std::cout << counted(run.received(), options.all ? "" : "new ") << "; " << run.on_server()
            << " on the server\n";
  if (!options.saves() && !options.all && run.received() > 0) {
    std::cout << "nothing was saved, so they stay new; --folder DIR saves them\n";
  }
}

// Fills in what was left open and checks what was given.
void complete(CLI::App& command, receive_options& options) {
  options.account.apply(command, *command.get_parent(), "pop3", options.mailbox);
  options.mailbox.complete();
  if (options.is_deleting && !options.saves()) {
    throw problem(EX_USAGE, "--delete deletes what was saved; add --folder DIR");
  }
}

int run_receive(CLI::App& command, receive_options& options) {
  std::optional<collection> run;
  std::optional<problem> end;
  try {
    complete(command, options);
    run.emplace(options);
    run->run();
  } catch (const problem& cause) {
    end = cause;
  }
  const std::vector<received_mail> mails = run ? run->mails() : std::vector<received_mail>();
  if (!end && run->trouble()) end = run->trouble();
  if (!end && run->received() < mails.size()) {
    end.emplace(EX_DATAERR, mails[run->received()].problem);
  }
  const std::vector<listed_mail> before = run ? run->deleted_before() : std::vector<listed_mail>();
  if (options.is_json) {
    std::cout << mails_json(mails, before, end ? &*end : nullptr);
  } else if (!end || !mails.empty() || !before.empty()) {
    print(options, *run);
  }
  if (end) throw *end;
  return EX_OK;
}

constexpr char kExamples[] = R"(
Without --folder the headers of new mails are shown, and nothing is changed.
With it new mails are saved there, one sub-folder each, and are not new the
next time.

Examples:
  tavmail receive -s mail.example.com -u anna
  tavmail receive -s mail.example.com:995 -u anna --folder mail --delete
)";

}  // namespace

command add_receive(CLI::App& tool) {
  CLI::App* app = tool.add_subcommand("receive", "list, fetch and delete mail");
  const auto options = std::make_shared<receive_options>();
  options->account.add_to(*app);
  options->mailbox.add_to(*app);
  app->add_option("-d,--folder", options->folder, "save new mails there")
      ->type_name("DIR")
      ->group("Mail");
  app->add_flag("--delete", options->is_deleting, "delete what was saved on the server")
      ->group("Mail");
  app->add_option("-n,--max", options->most, "most mails to fetch")
      ->check(CLI::Range(1, 1000000).description(""))
      ->type_name("N")
      ->group("Mail");
  auto* all =
      app->add_flag("--all", options->all, "all mails, whether seen before or not")->group("Mail");
  app->add_option("--seen", options->seen, "list of seen mails; by default of the account")
      ->type_name("FILE")
      ->excludes(all)
      ->group("Mail");
  app->add_flag("--json", options->is_json, "tell what was received as JSON")->group("Output");
  auto* verbose =
      app->add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
          ->group("Output");
  app->add_flag("-q,--quiet", options->quiet, "say nothing on success")
      ->excludes(verbose)
      ->group("Output");
  app->footer(kExamples);
  return {app, [app, options] { return run_receive(*app, *options); }};
}

}  // namespace tavmail
