// tavmail delete.

#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "account_file.h"
#include "commands.h"
#include "interrupt.h"
#include "mailbox_visit.h"
#include "picking.h"
#include "problem_json.h"
#include "progress_bar.h"
#include "receive_report.h"
#include "repetition.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

struct delete_options {
  account_file account;
  mailbox_options mailbox;
  picking picks;
  bool is_json = false;
  bool verbose = false;
  bool quiet = false;
};

void check_end() { interrupt_guard::check("nothing was deleted"); }

// Several mails may have one unique id. What is deleted is gone: nobody guesses which one is meant.
void refuse_copies(const picking& picks, const std::vector<listed_mail>& chosen) {
  for (const std::string& uid : picks.uids) {
    const auto is_copy = [&](const listed_mail& mail) { return mail.uid == uid; };
    if (std::count_if(chosen.begin(), chosen.end(), is_copy) < 2) continue;
    throw problem(EX_DATAERR, "several mails have the unique id " + uid +
                                  "; nothing was deleted, choose one by its --number");
  }
}

std::vector<listed_mail> chosen_mails(const picking& picks, mailbox_visit& visit) {
  bool has_uids = true;
  std::vector<listed_mail> chosen;
  const std::vector<listed_mail> listed = visit.list(has_uids);
  picks.require_all(listed);
  for (const listed_mail& mail : listed) {
    if (picks.has(mail)) chosen.push_back(mail);
  }
  refuse_copies(picks, chosen);
  return chosen;
}

// All of them or none: those that are marked stay when they are unmarked, and when the connection
// ends without QUIT, as it does when the run is ended at a wait.
void mark(const std::vector<listed_mail>& chosen, mailbox_visit& visit) {
  for (const listed_mail& mail : chosen) {
    const TAV_EML_RESULT result = visit.session().remove(mail.number);
    if (result == TAV_EML_OK) continue;
    const problem cause = visit.explain(result);
    const bool is_unmarked =
        !visit.session().is_connected() || visit.session().reset() == TAV_EML_OK;
    check_end();
    if (is_unmarked) throw problem(cause);
    throw problem(cause.exit_code(), std::string(cause.what()) +
                                         "; others may be deleted, see tavmail list for the rest");
  }
}

std::vector<listed_mail> delete_mails(const delete_options& options) {
  mailbox_visit visit(options.mailbox, options.verbose, check_end);
  visit.open();
  const std::vector<listed_mail> chosen = chosen_mails(options.picks, visit);
  // After a connection that was cut the numbers may be those of other mails.
  if (!options.picks.numbers.empty()) repetition::rule_out();
  mark(chosen, visit);
  if (visit.quit_is_confirmed()) return chosen;
  interrupt_guard::check("the server did not confirm what it was to delete");
  problem cause(EX_TEMPFAIL, options.mailbox.place() +
                                 " did not confirm the deletion; see tavmail list for the rest");
  cause.at("the goodbye", reply_text(visit.view().decisive()), "");
  throw problem(cause);
}

std::string json_of(const std::vector<listed_mail>& deleted, const problem* cause) {
  nlohmann::ordered_json document = {{"deleted", listed_json(deleted)}};
  if (cause != nullptr) add_problem(document, *cause);
  return json_text(document);
}

int run_delete(command_line& command, delete_options& options) {
  std::vector<listed_mail> deleted;
  std::optional<problem> end;
  try {
    if (options.picks.is_empty()) {
      throw problem(EX_USAGE, "which mail? give --number or --uid, as tavmail list shows them");
    }
    options.account.apply(command, *command.parent(), "pop3", options.mailbox);
    options.mailbox.complete();
    deleted = delete_mails(options);
  } catch (const problem& cause) {
    end = cause;
  }
  if (options.is_json) {
    std::cout << json_of(deleted, end ? &*end : nullptr);
  } else if (!options.quiet) {
    for (const listed_mail& mail : deleted) {
      std::cout << "mail " << mail.number << " (" << amount(static_cast<double>(mail.size))
                << ") deleted\n";
    }
  }
  if (end) throw problem(*end);
  return EX_OK;
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
