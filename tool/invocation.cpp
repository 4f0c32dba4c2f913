#include "invocation.h"

#include <string>

#include "near_word.h"
#include "problem.h"

namespace tavmail {

namespace {

// What can stand there.
std::vector<std::string> known_words(const command_line& line) {
  std::vector<std::string> words;
  for (const command_line* command : line.commands()) words.push_back(command->name());
  for (const option& option : line.options()) {
    if (!option.name().empty()) words.push_back("--" + option.name());
  }
  return words;
}

void refuse_unknown(const command_line& line) {
  for (const std::string& word : line.unknown_words()) {
    if (word == "--") continue;  // the end of the options
    const bool is_option = word[0] == '-' || line.parent() != nullptr;
    throw problem(EX_USAGE, (is_option ? "unknown option " : "unknown command ") + word +
                                did_you_mean(word.substr(0, word.find('=')), known_words(line)));
  }
}

}  // namespace

invocation::invocation(int argc, const char* const* argv, const char* version)
    : m_tool("Sends mail over SMTP and receives it over POP3.", "tavmail") {
  m_tool.set_version(version);
  m_commands = add_commands(m_tool);
  m_isAnswered = !m_tool.parse(argc, argv);
}

const command& invocation::chosen() const {
  refuse_unknown(m_tool);
  for (const command& command : m_commands) {
    if (!command.line->is_chosen()) continue;
    refuse_unknown(*command.line);
    return command;
  }
  throw problem(EX_USAGE, "no command given; see tavmail --help");
}

}  // namespace tavmail
