// tavmail - the command line of libtaveml.

#include <CLI/CLI.hpp>
#include <clocale>
#include <iostream>
#include <new>
#include <vector>

#include "commands.h"
#include "near_word.h"
#include "problem.h"

namespace {

constexpr char kVersion[] = "tavmail " TAVEML_VERSION;

// Usage errors end with EX_USAGE, whatever CLI11 calls them.
int report_usage(const CLI::App& tool, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) return tool.exit(error);
  std::cerr << "tavmail: " << error.what() << "; see tavmail --help\n";
  return EX_USAGE;
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

}  // namespace

int main(int argc, char** argv) {
  // For the width of characters on a terminal.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  CLI::App tool("Sends mail over SMTP and receives it over POP3.", "tavmail");
  tool.set_version_flag("--version", kVersion);
  tool.require_subcommand(0, 1);
  tool.allow_extras();
  tool.get_formatter()->column_width(32);
  const std::vector<tavmail::command> commands = {
      tavmail::add_send(tool), tavmail::add_receive(tool), tavmail::add_doctor(tool),
      tavmail::add_completion(tool)};
  for (const tavmail::command& command : commands) command.app->allow_extras();
  try {
    tool.parse(argc, argv);
    refuse_unknown(tool);
    for (const tavmail::command& command : commands) {
      if (!command.app->parsed()) continue;
      refuse_unknown(*command.app);
      return command.run();
    }
    throw tavmail::problem(EX_USAGE, "no command given; see tavmail --help");
  } catch (const CLI::ParseError& error) {
    return report_usage(tool, error);
  } catch (const tavmail::problem& problem) {
    std::cerr << "tavmail: " << problem.what() << '\n';
    return problem.exit_code();
  } catch (const std::bad_alloc&) {
    std::cerr << "tavmail: out of memory\n";
    return EX_OSERR;
  }
}
