// tavmail doctor.

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "account_file.h"
#include "checkup.h"
#include "commands.h"
#include "interrupt.h"
#include "problem_json.h"
#include "received_text.h"
#include "trust_store.h"

namespace tavmail {

namespace {

struct doctor_options {
  account_file account;
  trial_options asked;  // as given; each protocol gets options of its own from it
  bool apop = false;
  std::string protocol;
  bool verbose = false;
  bool is_json = false;
};

// Hands what was given on the command line over to the options of one protocol.
void carry(const command_line& from, command_line& to) {
  for (const option& given : from.options()) {
    if (!given.is_given()) continue;
    const option same = to.find(given.name());
    if (same) same.give(given.values());
  }
}

bool wants(const command_line& command, const doctor_options& options,
           const std::string& protocol) {
  if (!options.protocol.empty()) return options.protocol == protocol;
  if (!command.find("server").is_given()) return true;
  // A server without more words: its port tells.
  mailbox_options endpoint = {};
  endpoint.server = options.asked.server;
  endpoint.port = options.asked.port;
  endpoint.complete_address(kPop3);
  const bool is_pop3 =
      (endpoint.port == kPop3.plain_port || endpoint.port == kPop3.implicit_port) &&
      (options.asked.port != 0 || options.asked.server != endpoint.server);
  return is_pop3 == (protocol == "pop3");
}

// Runs `check` with the options of one protocol. False when the account does not have it.
template <typename Options, typename Check>
bool examine(const command_line& command, const doctor_options& options, const char* protocol,
             Check check, std::vector<checkup>& results) {
  reset_trust();  // the other protocol may have had certificates of its own
  Options endpoint;
  command_line own;
  endpoint.add_to(own);
  carry(command, own);
  const bool is_known = options.account.apply(own, *command.parent(), protocol, endpoint, true);
  if (!is_known && endpoint.server.empty()) return false;
  endpoint.complete();
  results.push_back(check(endpoint, options.verbose));
  if (!results.back().is_good()) interrupt_guard::check();
  return true;
}

void examine_all(const command_line& command, const doctor_options& options,
                 std::vector<checkup>& results) {
  if (wants(command, options, "smtp")) {
    examine<trial_options>(command, options, "smtp", check_smtp, results);
  }
  if (wants(command, options, "pop3")) {
    examine<mailbox_options>(command, options, "pop3", check_pop3, results);
  }
  if (results.empty()) {
    const std::string lack = options.account.files().lack();
    throw problem(EX_USAGE, "nothing to examine: give --server HOST or --account NAME" +
                                (lack.empty() ? "" : "; " + lack));
  }
}

constexpr char kNoMark[] = "        ";

std::string label_of(const char* mark, const std::string& name) {
  std::string label = mark + name;
  label.resize(26, ' ');
  return label;
}

// The last line of an examination that failed.
std::string verdict_of(const checkup& result) {
  const bool is_smtp = result.protocol == "smtp";
  std::string failed;
  for (const checkup_stage& stage : result.stages) {
    if (!stage.is_good) failed = stage.name;  // an address may be dead and the next one not
  }
  return "not ready to " + std::string(is_smtp ? "send" : "receive") + ": \"" + failed +
         "\" failed" + (is_smtp ? "; no mail was sent" : "");
}

int run_doctor(command_line& command, const doctor_options& options) {
  std::vector<checkup> results;
  std::optional<problem> end;
  try {
    examine_all(command, options, results);
  } catch (const problem& cause) {
    end = cause;
  }
  int exit_code = EX_OK;
  for (const checkup& result : results) {
    if (!options.is_json) std::cout << checkup_lines(result);
    if (exit_code == EX_OK) exit_code = result.exit_code;
  }
  if (options.is_json) std::cout << checkups_json(results, end ? &*end : nullptr);
  if (end) throw *end;
  return exit_code;
}

}  // namespace

void trial_options::add_to(command_line& command) {
  server_options::add_to(command);
  command.add("-f,--from", from, "sender to try; guessed by default")
      .value_name("ADDRESS")
      .group("Mail");
  command.add("-t,--to", to, "recipient to try; the sender by default")
      .first_counts()
      .value_name("ADDRESS")
      .group("Mail");
}

std::string checkup_lines(const checkup& result) {
  std::string out = (result.protocol == "smtp" ? "Sending" : "Receiving") + std::string(": ") +
                    result.server + " port " + std::to_string(result.port) + "\n";
  for (const checkup_stage& stage : result.stages) {
    out += wrapped(label_of(stage.is_good ? "  ok    " : "  FAIL  ", stage.name), stage.text);
    if (!stage.remedy.empty()) {
      out += wrapped(label_of(kNoMark, "what to do"), stage.remedy);
    }
  }
  if (!result.is_good()) out += wrapped(label_of(kNoMark, "result"), verdict_of(result));
  return out + "\n";
}

std::string checkups_json(const std::vector<checkup>& results, const problem* cause) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const checkup& result : results) {
    nlohmann::ordered_json stages = nlohmann::ordered_json::array();
    for (const checkup_stage& stage : result.stages) {
      stages.push_back({{"name", stage.name},
                        {"good", stage.is_good},
                        {"text", stage.text},
                        {"remedy", stage.remedy}});
    }
    list.push_back({{"protocol", result.protocol},
                    {"server", result.server},
                    {"port", result.port},
                    {"good", result.is_good()},
                    {"exit_code", result.exit_code},
                    {"stages", stages}});
  }
  nlohmann::ordered_json document = {{"checkups", list}};
  if (cause != nullptr) add_problem(document, *cause);
  return json_text(document);
}

command add_doctor(command_line& tool) {
  command_line& line = tool.add_command("doctor", "examine the way to a server, stage by stage");
  const auto options = std::make_shared<doctor_options>();
  options->account.add_to(line);
  options->asked.add_to(line);
  line.add_flag("--apop", options->apop, "log in to POP3 with APOP").group("Server");
  line.add("--protocol", options->protocol, "smtp or pop3; both of an account by default")
      .one_of({"smtp", "pop3"})
      .value_name("NAME")
      .group("Server");
  line.add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
      .group("Output");
  line.add_flag("--json", options->is_json, "tell what was found as JSON").group("Output");
  return {&line, [&line, options] { return run_doctor(line, *options); }};
}

}  // namespace tavmail
