// tavmail - the command line of libtaveml.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>
#include <vector>

#include "commands.h"
#include "dialogue_view.h"
#include "interrupt.h"
#include "near_word.h"
#include "problem_json.h"
#include "received_text.h"

namespace {

constexpr char kVersion[] = "tavmail " TAVEML_VERSION;

// One line for a log; for a person it is broken where the terminal would cut a word.
int report(const tavmail::problem& cause) {
  const std::string sentence = tavmail::presentable(cause.what());
  std::cerr << (isatty(STDERR_FILENO) == 1 ? tavmail::wrapped("tavmail: ", sentence)
                                           : "tavmail: " + sentence + "\n");
  return cause.exit_code();
}

// What ended the tool without a word of the command's. A script that asked for a document gets one.
int report_alone(const tavmail::problem& cause, int argc, char** argv) {
  if (std::find(argv, argv + argc, std::string("--json")) != argv + argc) {
    nlohmann::ordered_json document;
    tavmail::add_problem(document, cause);
    std::cout << tavmail::json_text(document);
  }
  return report(cause);
}

// What can stand on the command line of `app`.
std::vector<std::string> known_words(const CLI::App& app) {
  std::vector<std::string> words;
  for (const CLI::App* command : app.get_subcommands(nullptr)) words.push_back(command->get_name());
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) words.push_back("--" + name);
  }
  return words;
}

void refuse_unknown(const CLI::App& app) {
  for (const std::string& word : app.remaining()) {
    const bool is_option = word[0] == '-' || app.get_parent() != nullptr;
    throw tavmail::problem(
        EX_USAGE, (is_option ? "unknown option " : "unknown command ") + word +
                      tavmail::did_you_mean(word.substr(0, word.find('=')), known_words(app)));
  }
}

// The command that was chosen.
const tavmail::command& parse(CLI::App& tool, const std::vector<tavmail::command>& commands,
                              int argc, char** argv) {
  tool.parse(argc, argv);
  refuse_unknown(tool);
  for (const tavmail::command& command : commands) {
    if (!command.app->parsed()) continue;
    refuse_unknown(*command.app);
    return command;
  }
  throw tavmail::problem(EX_USAGE, "no command given; see tavmail --help");
}

int run(const tavmail::command& command) {
  const int exit_code = command.run();
  // Otherwise output is lost without a word: the disk may be full.
  if (!std::cout.flush()) throw tavmail::problem(EX_IOERR, "cannot write to the standard output");
  return exit_code;
}

int run_tool(int argc, char** argv) {
  CLI::App tool("Sends mail over SMTP and receives it over POP3.", "tavmail");
  tool.set_version_flag("--version", kVersion);
  tool.require_subcommand(0, 1);
  tool.allow_extras();
  tool.get_formatter()->column_width(32);
  const std::vector<tavmail::command> commands = {
      tavmail::add_send(tool), tavmail::add_receive(tool), tavmail::add_doctor(tool),
      tavmail::add_completion(tool)};
  for (const tavmail::command& command : commands) command.app->allow_extras();
  const tavmail::command* chosen = nullptr;
  try {
    chosen = &parse(tool, commands, argc, argv);
    return run(*chosen);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return tool.exit(error);
    // Usage errors end with EX_USAGE, whatever CLI11 calls them.
    const std::string sentence = std::string(error.what()) + "; see tavmail --help";
    return report_alone(tavmail::problem(EX_USAGE, sentence), argc, argv);
  } catch (const tavmail::problem& cause) {
    // A command that ran has told it in its own document.
    return chosen == nullptr ? report_alone(cause, argc, argv) : report(cause);
  } catch (const std::bad_alloc&) {
    return report_alone(tavmail::problem(EX_OSERR, "out of memory"), argc, argv);
  } catch (const std::exception& error) {
    return report_alone(tavmail::problem(EX_SOFTWARE, std::string("it failed: ") + error.what()),
                        argc, argv);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // For the width of characters on a terminal.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  // A file that may not grow is an error like any other.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    const tavmail::interrupt_guard guard;
    return run_tool(argc, argv);
  } catch (...) {
    // Not even a message could be made.
    std::fputs("tavmail: out of memory\n", stderr);
    return EX_OSERR;
  }
}
