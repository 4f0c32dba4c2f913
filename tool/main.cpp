// tavmail - the command line of libtaveml.

#include <CLI/CLI.hpp>
#include <clocale>
#include <iostream>
#include <new>
#include <vector>

#include "commands.h"
#include "problem.h"

namespace {

constexpr char kVersion[] = "tavmail " TAVEML_VERSION;

// Usage errors end with EX_USAGE, whatever CLI11 calls them.
int report_usage(const CLI::App& tool, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) return tool.exit(error);
  std::cerr << "tavmail: " << error.what() << "; see tavmail --help\n";
  return EX_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
  // For the width of characters on a terminal.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  CLI::App tool("Sends mail over SMTP and receives it over POP3.", "tavmail");
  tool.set_version_flag("--version", kVersion);
  tool.require_subcommand(1);
  tool.get_formatter()->column_width(32);
  const std::vector<tavmail::command> commands = {
      tavmail::add_send(tool), tavmail::add_receive(tool), tavmail::add_test_send(tool)};
  try {
    tool.parse(argc, argv);
    for (const tavmail::command& command : commands) {
      if (command.app->parsed()) return command.run();
    }
    return EX_USAGE;
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
