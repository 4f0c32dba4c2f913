#include "series.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "configuration.h"
#include "interrupt.h"
#include "invocation.h"
#include "mail_log.h"
#include "problem_json.h"
#include "received_text.h"
#include "repetition.h"
#include "token_source.h"
#include "trust_store.h"

namespace tavmail {

namespace {

constexpr std::chrono::seconds kFirstWait{1};
constexpr std::chrono::seconds kLongestWait{600};

// What came of a run. Its output is held back: of runs that are repeated only the last one's shows.
struct run_result {
  int exit_code = EX_OK;
  std::optional<problem> cause;
  std::string output;
};

// Takes what is written to the standard output while it lives.
class output_catcher {
 public:
  output_catcher() : m_before(std::cout.rdbuf(m_text.rdbuf())) {}
  ~output_catcher() { std::cout.rdbuf(m_before); }
  output_catcher(const output_catcher&) = delete;
  output_catcher& operator=(const output_catcher&) = delete;
  std::string text() const { return m_text.str(); }

 private:
  std::ostringstream m_text;
  std::streambuf* const m_before;
};

// One line for a log; for a person it is broken where the terminal would cut a word.
void report(const std::string& text) {
  const std::string sentence = presentable(text);
  std::cerr << (isatty(STDERR_FILENO) == 1 ? wrapped("tavmail: ", sentence)
                                           : "tavmail: " + sentence + "\n");
}

std::string value_of(const command& command, const char* name) {
  const option found = command.line->find(name);
  const std::vector<std::string> values = found ? found.values() : std::vector<std::string>();
  return values.empty() ? "" : values[0];
}

bool wants_json(const command& command) {
  const option found = command.line->find("json");
  return found && found.is_given();
}

// Runs it, and turns whatever ends it into a problem.
run_result run_once(const command& chosen) {
  run_result result;
  const output_catcher output;
  const auto fail = [&](const problem& cause) {
    result.cause = cause;
    // A command that ended with a problem has told it in its own document.
    if (wants_json(chosen)) std::cout << problem_document(cause);
  };
  try {
    result.exit_code = chosen.run();
  } catch (const problem& cause) {
    result.cause = cause;
  } catch (const usage_error& error) {
    fail(problem(EX_USAGE, std::string(error.what()) + "; see tavmail --help"));
  } catch (const std::bad_alloc&) {
    fail(problem(EX_OSERR, "out of memory"));
  } catch (const std::exception& error) {
    fail(problem(EX_SOFTWARE, std::string("it failed: ") + error.what()));
  }
  if (result.cause) result.exit_code = result.cause->exit_code();
  result.output = output.text();
  return result;
}

void write_log(const command& command, const run_result& result) {
  const std::string& target = command.options->log;
  if (target.empty()) return;
  const problem* cause = result.cause ? &*result.cause : nullptr;
  const std::vector<std::string> lines = mail_log::lines(
      value_of(command, "server"), value_of(command, "user"), command.is_sending(), cause);
  if (!mail_log::write(target, lines, result.exit_code != EX_OK)) {
    report("cannot write to the log " + target + "; what became of the mail does not change");
  }
}

// The run was waiting for its next try.
void end_between_tries(run_result& result) {
  result.cause = interrupt_guard::cause(std::string("before that: ") + result.cause->what());
  result.exit_code = result.cause->exit_code();
  auto document = nlohmann::ordered_json::parse(result.output, nullptr, false);
  if (!document.is_object()) return;
  document["exit_code"] = result.exit_code;
  document["problem"] = result.cause->what();
  result.output = json_text(document);
}

class series {
 public:
  series(int argc, const char* const* argv, const char* version)
      : m_argc(argc), m_argv(argv), m_version(version) {}

  const invocation& first() {
    m_first = next();
    return *m_first;
  }

  // Runs the command with this account, "" for what the command line says.
  run_result run(const std::string& account) {
    std::chrono::seconds wait = kFirstWait;
    repetition::begin_account();
    for (int tries = 0;; ++tries) {
      const std::unique_ptr<invocation> current = next();
      const command& chosen = current->chosen();
      if (!account.empty()) choose(*chosen.line, account);
      reset_trust();  // an account's own certificates are for its runs alone
      withdraw_tokens();
      repetition::begin(&chosen.options->retries);
      mail_log::begin();
      run_result result = run_once(chosen);
      const bool is_next = result.cause && result.cause->may_be_repeated() &&
                           tries < chosen.options->retries && repetition::is_possible() &&
                           !interrupt_guard::was_pressed();
      if (is_next) {
        tell_wait(chosen, result, wait);
        if (interrupt_guard::sleep(wait)) {
          wait = std::min(2 * wait, kLongestWait);
          continue;
        }
        end_between_tries(result);
      }
      write_log(chosen, result);
      repetition::begin(nullptr);
      return result;
    }
  }

 private:
  std::unique_ptr<invocation> next() {
    if (m_first) return std::move(m_first);
    return std::make_unique<invocation>(m_argc, m_argv, m_version);
  }

  static void choose(const command_line& line, const std::string& account) {
    line.find("all-accounts").forget();
    line.find("account").forget();
    line.find("account").give({account});
  }

  // For whoever watches; a script reads the outcome alone.
  static void tell_wait(const command& command, const run_result& result,
                        std::chrono::seconds wait) {
    const option verbose = command.line->find("verbose");
    if (isatty(STDERR_FILENO) != 1 && !(verbose && verbose.is_given())) return;
    std::cerr << "* " << presentable(result.cause->what()) << "; trying again in " << wait.count()
              << " s\n";
  }

  const int m_argc;
  const char* const* const m_argv;
  const char* const m_version;
  std::unique_ptr<invocation> m_first;  // until it has run
};

// The worse of two exit codes: nothing wrong, wrong for now, wrong, ended from outside.
int worse(int first, int second) {
  const auto rank = [](int code) {
    return code == EX_OK ? 0 : code == EX_TEMPFAIL ? 1 : code < 128 ? 2 : 3;
  };
  return rank(second) > rank(first) ? second : first;
}

// The accounts that the command line asks for one after the other; none for a single run.
std::vector<std::string> accounts_of(const command& command) {
  const std::string given = value_of(command, "account");
  if (command.options->all_accounts) {
    const std::string section = command.line->name() == "doctor" ? "" : "pop3";
    const configuration files(value_of(command, "config"));
    const std::vector<std::string> names = files.names_with_server(section);
    if (names.empty()) {
      throw problem(EX_CONFIG,
                    "no account with a server" +
                        (files.lack().empty() ? " in " + files.places() : ": " + files.lack()));
    }
    return names;
  }
  if (given.find(',') == std::string::npos) return {};
  if (!command.line->find("all-accounts")) {
    throw problem(EX_USAGE, "--account " + given + ": tavmail " + command.line->name() +
                                " works with one account at a time");
  }
  std::vector<std::string> names;
  std::istringstream words(given);
  for (std::string name; std::getline(words, name, ',');) {
    if (!name.empty()) names.push_back(name);
  }
  return names;
}

int run_accounts(series& runs, const std::vector<std::string>& names, bool is_json) {
  int exit_code = EX_OK;
  auto documents = nlohmann::ordered_json::array();
  for (const std::string& name : names) {
    const run_result result = runs.run(name);
    exit_code = worse(exit_code, result.exit_code);
    if (is_json) {
      nlohmann::ordered_json document = {{"account", name}};
      const auto own = nlohmann::ordered_json::parse(result.output, nullptr, false);
      if (own.is_object()) document.update(own);
      documents.push_back(document);
    } else if (!result.output.empty()) {
      std::cout << presentable(name) << ":\n" << result.output << std::flush;
    }
    if (result.cause) report(name + ": " + result.cause->what());
    if (interrupt_guard::was_pressed()) break;
  }
  if (is_json) {
    std::cout << json_text(
        nlohmann::ordered_json{{"accounts", documents}, {"exit_code", exit_code}});
  }
  return exit_code;
}

int run_chosen(series& runs, const command& chosen) {
  if (!chosen.options) return chosen.run();
  const std::vector<std::string> names = accounts_of(chosen);
  const bool is_json = wants_json(chosen);
  if (!names.empty()) return run_accounts(runs, names, is_json);
  const run_result result = runs.run("");
  std::cout << result.output;
  if (result.cause) {
    std::cout.flush();
    report(result.cause->what());
  }
  return result.exit_code;
}

// What ended the tool without a word of a command's. A script that asked for a document gets one.
int report_alone(const problem& cause, int argc, const char* const* argv) {
  if (std::find(argv, argv + argc, std::string("--json")) != argv + argc) {
    std::cout << problem_document(cause);
  }
  report(cause.what());
  return cause.exit_code();
}

}  // namespace

int run_series(int argc, const char* const* argv, const char* version) {
  try {
    series runs(argc, argv, version);
    const invocation& first = runs.first();
    if (first.is_answered()) return EX_OK;
    const int exit_code = run_chosen(runs, first.chosen());
    // Otherwise output is lost without a word: the disk may be full.
    if (std::cout.flush()) return exit_code;
    const bool is_done = exit_code == EX_OK;
    report(std::string("cannot write to the standard output") +
           (is_done ? "; all else is done" : ""));
    return is_done ? EX_IOERR : exit_code;
  } catch (const usage_error& error) {
    const std::string sentence = std::string(error.what()) + "; see tavmail --help";
    return report_alone(problem(EX_USAGE, sentence), argc, argv);
  } catch (const problem& cause) {
    return report_alone(cause, argc, argv);
  } catch (const std::bad_alloc&) {
    return report_alone(problem(EX_OSERR, "out of memory"), argc, argv);
  } catch (const std::exception& error) {
    return report_alone(problem(EX_SOFTWARE, std::string("it failed: ") + error.what()), argc,
                        argv);
  }
}

}  // namespace tavmail
