// tavmail receive.

#include <iostream>
#include <memory>
#include <optional>

#include "account_file.h"
#include "collection.h"
#include "commands.h"
#include "mail_log.h"
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
  const bool is_any = options.all || !options.picks.is_empty();
  std::cout << counted(run.received(), is_any ? "" : "new ") << "; " << run.on_server()
            << " on the server\n";
  const size_t left = run.too_large().size();
  if (left > 0) std::cout << counted(left, "larger ") << " left there (--max-size)\n";
  if (!options.saves() && !is_any && run.received() > 0) {
    std::cout << "nothing was saved, so they stay new; --folder DIR saves them\n";
  }
}

// Fills in what was left open and checks what was given.
void complete(command_line& command, receive_options& options) {
  const bool is_folder_given = !options.folder.empty();
  const bool is_pipe_given = !options.pipe.empty();
  options.account.apply(command, *command.parent(), "pop3", options.mailbox);
  options.mailbox.complete();
  // The account may have the other one; what the command line says counts.
  if (is_folder_given) options.pipe.clear();
  if (is_pipe_given) options.folder.clear();
  if (!options.folder.empty() && !options.pipe.empty()) {
    throw problem(EX_CONFIG, "the account has both folder and pipe; mails can go to one");
  }
  if (options.is_deleting && !options.saves()) {
    throw problem(EX_USAGE, "--delete deletes what was saved; add --folder DIR");
  }
  if (options.pipe.empty() && options.format != mail_format::parts && options.folder.empty()) {
    throw problem(EX_USAGE, "--format says how mails are saved; add --folder DIR");
  }
  options.is_output_data = options.is_json;
}

int run_receive(command_line& command, receive_options& options) {
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
  mail_log::note(mails);
  if (!end && run->trouble()) end = run->trouble();
  if (!end && run->received() < mails.size()) {
    end.emplace(EX_DATAERR, mails[run->received()].problem);
  }
  const std::vector<listed_mail> none;
  const std::vector<listed_mail> before = run ? run->deleted_before() : std::vector<listed_mail>();
  if (options.is_json) {
    std::cout << mails_json(mails, before, run ? run->too_large() : none, end ? &*end : nullptr);
  } else if (!end || !mails.empty() || !before.empty()) {
    print(options, *run);
  }
  if (end) throw *end;
  return EX_OK;
}

constexpr char kReceiveExamples[] = R"(
Without --folder the headers of new mails are shown, and nothing is changed.
With it new mails are saved there, one sub-folder each, and are not new the
next time.

Examples:
  tavmail receive -s mail.example.com -u anna
  tavmail receive -s mail.example.com:995 -u anna --folder mail --delete
)";

// Where mails go.
void add_places(command_line& line, receive_options& options) {
  const option folder = line.add("-d,--folder", options.folder, "save new mails there")
                            .value_name("DIR")
                            .group("Mail");
  line.add("--format", options.format,
           {{"parts", mail_format::parts},
            {"eml", mail_format::eml},
            {"maildir", mail_format::maildir},
            {"mbox", mail_format::mbox}},
           "save parts (the default) or the whole mail")
      .value_name("parts|eml|maildir|mbox")
      .group("Mail");
  line.add_flag("--original-charset", options.keeps_char_set,
                "save texts as they came, not as UTF-8")
      .group("Mail");
  line.add("--pipe", options.pipe, "hand each new mail to a command")
      .value_name("CMD")
      .excludes(folder)
      .group("Mail");
  line.add_flag("--delete", options.is_deleting, "delete what was saved on the server")
      .group("Mail");
}

// Which mails.
void add_choice(command_line& line, receive_options& options) {
  options.picks.add_to(line, "fetch");
  line.add("--max-size", options.largest, "leave larger mails: 300000, 500K, 5M")
      .as_size()
      .value_name("SIZE")
      .group("Mail");
  line.add("-n,--max", options.most, "most mails to fetch")
      .range(1, 1000000)
      .value_name("N")
      .group("Mail");
  const option all =
      line.add_flag("--all", options.all, "all mails, whether seen before or not").group("Mail");
  line.add("--seen", options.seen, "list of seen mails; by default of the account")
      .value_name("FILE")
      .excludes(all)
      .group("Mail");
}

}  // namespace

command add_receive(command_line& tool) {
  command_line& line = tool.add_command("receive", "list, fetch and delete mail");
  const auto options = std::make_shared<receive_options>();
  options->account.add_to(line);
  options->mailbox.add_to(line);
  add_places(line, *options);
  add_choice(line, *options);
  line.add_flag("--json", options->is_json, "tell what was received as JSON").group("Output");
  const option verbose =
      line.add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
          .group("Output");
  line.add_flag("-q,--quiet", options->quiet, "say nothing on success")
      .excludes(verbose)
      .group("Output");
  line.set_footer(kReceiveExamples);
  return {&line, [&line, options] { return run_receive(line, *options); }};
}

}  // namespace tavmail
