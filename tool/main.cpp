// tavmail - the command line of libtaveml.

#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
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
    std::cout << tavmail::problem_document(cause);
  }
  return report(cause);
}

// What can stand there.
std::vector<std::string> known_words(const tavmail::command_line& line) {
  std::vector<std::string> words;
  for (const tavmail::command_line* command : line.commands()) words.push_back(command->name());
  for (const tavmail::option& option : line.options()) {
    if (!option.name().empty()) words.push_back("--" + option.name());
  }
  return words;
}

void refuse_unknown(const tavmail::command_line& line) {
  for (const std::string& word : line.unknown_words()) {
    if (word == "--") continue;  // the end of the options
    const bool is_option = word[0] == '-' || line.parent() != nullptr;
    throw tavmail::problem(
        EX_USAGE, (is_option ? "unknown option " : "unknown command ") + word +
                      tavmail::did_you_mean(word.substr(0, word.find('=')), known_words(line)));
  }
}

const tavmail::command& chosen_command(const tavmail::command_line& tool,
                                       const std::vector<tavmail::command>& commands) {
  refuse_unknown(tool);
  for (const tavmail::command& command : commands) {
    if (!command.line->is_chosen()) continue;
    refuse_unknown(*command.line);
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
  tavmail::command_line tool("Sends mail over SMTP and receives it over POP3.", "tavmail");
  tool.set_version(kVersion);
  const std::vector<tavmail::command> commands = {
      tavmail::add_send(tool),      tavmail::add_sendmail(tool),  tavmail::add_receive(tool),
      tavmail::add_list(tool),      tavmail::add_delete(tool),    tavmail::add_doctor(tool),
      tavmail::add_authorize(tool), tavmail::add_completion(tool)};
  const tavmail::command* chosen = nullptr;
  try {
    if (!tool.parse(argc, argv)) return EX_OK;
    chosen = &chosen_command(tool, commands);
    return run(*chosen);
  } catch (const tavmail::usage_error& error) {
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
  std::vector<char*> words(argv, argv + argc + 1);  // with the null at the end
  static char sendmail[] = "sendmail";
  // Called through a link, as programs call it that know nothing of tavmail.
  if (argc > 0 && std::filesystem::path(argv[0]).filename() == sendmail) {
    words.insert(words.begin() + 1, sendmail);
  }
  // For the width of characters on a terminal.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  // A file that may not grow is an error like any other.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    const tavmail::interrupt_guard guard;
    return run_tool(static_cast<int>(words.size()) - 1, words.data());
  } catch (...) {
    // Not even a message could be made.
    std::fputs("tavmail: out of memory\n", stderr);
    return EX_OSERR;
  }
}
