// commands.h - the subcommands. Each adds itself to the command line; the one that was chosen runs
// and returns its exit code, or throws a problem.

#ifndef COMMANDS_H
#define COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>

namespace tavmail {

// A subcommand and what runs it. The options live as long as the function.
struct command {
  CLI::App* app;
  std::function<int()> run;
};

command add_send(CLI::App& tool);
command add_receive(CLI::App& tool);
command add_doctor(CLI::App& tool);
command add_completion(CLI::App& tool);

}  // namespace tavmail

#endif
