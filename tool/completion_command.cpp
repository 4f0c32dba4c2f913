// tavmail completion: scripts for the shells, made from the options themselves.

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "problem.h"
#include "words.h"

namespace tavmail {

namespace {

// What the shells ask the tool and the system for.
// bash expands what it completes, so that a name may not be more than a name.
#define ACCOUNTS "tavmail config accounts 2>/dev/null | grep -x \"[[:alnum:]_.@-]*\""
#define TYPES                                                \
  "cat /usr/share/mime/types /etc/mime.types 2>/dev/null | " \
  "sed -n \"s,^\\([a-z]*/[^[:space:]]*\\).*,\\1,p\" | sort -u"

constexpr char kBashBegin[] =
    R"sh(# bash completion of tavmail: source this file, or put it into
# ~/.local/share/bash-completion/completions/tavmail
_tavmail_words() { COMPREPLY=($(compgen -W "$1" -- "$word")); }
_tavmail_types() { _tavmail_words "$()sh" TYPES R"sh()"; }
_tavmail_files() {
  local IFS=$'\n'
  compopt -o filenames
  COMPREPLY=($(compgen -f -- "$word"))
}
_tavmail_accounts() {
  local before=
  [[ $word == *,* ]] && before=${word%,*},
  COMPREPLY=($(compgen -P "$before" -W "$()sh" ACCOUNTS R"sh()" -- "${word##*,}"))
}
_tavmail() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command=${COMP_WORDS[1]}
  if [[ $before == = ]]; then before=${COMP_WORDS[COMP_CWORD-2]}; fi
  if [[ $word == = ]]; then word=; fi
  if [[ $COMP_CWORD == 1 ]]; then command=; fi
  case "$command $before" in
)sh";

constexpr char kZshBegin[] =
    R"sh(#compdef tavmail
# zsh completion of tavmail: put it into a folder of $fpath as _tavmail
_tavmail_accounts() { _values -s , account ${(f)"$()sh" ACCOUNTS R"sh()"} }
_tavmail_types() { compadd -- ${(f)"$()sh" TYPES R"sh()"} }
_tavmail() {
  local -a line commands=(
)sh";

enum class value_kind { none, file, account, type, words, other };

value_kind kind_of(const option& each) {
  if (each.is_flag()) return value_kind::none;
  if (each.name() == "account") return value_kind::account;
  if (each.name() == "content-type") return value_kind::type;
  if (!each.suggestions().empty()) return value_kind::words;
  const std::string value = each.value_name();
  return value == "FILE" || value == "DIR" ? value_kind::file : value_kind::other;
}

// "--server" and "-s".
std::vector<std::string> words_of(const option& each) {
  std::vector<std::string> words;
  if (!each.name().empty()) words.push_back("--" + each.name());
  if (!each.letter().empty()) words.push_back("-" + each.letter());
  return words;
}

// All that can stand after a command: its options, and the words of what is no option.
std::vector<std::string> words_of(const command_line& command) {
  std::vector<std::string> words;
  for (const option& each : command.options()) {
    if (words_of(each).empty()) {
      for (const std::string& word : each.suggestions()) words.push_back(word);
    } else if (!each.name().empty()) {
      words.push_back("--" + each.name());
    }
  }
  return words;
}

// A text between single quotes, for all three shells.
std::string shell_quoted(const std::string& text) {
  std::string result = "'";
  for (const char ch : text) result += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
  return result + "'";
}

// The commands, and the tool itself as the first.
std::vector<const command_line*> all_of(const command_line& tool) {
  std::vector<const command_line*> all = tool.commands();
  all.insert(all.begin(), &tool);
  return all;
}

std::string bash_values(const option& each) {
  switch (kind_of(each)) {
    case value_kind::file:
      return "_tavmail_files";
    case value_kind::account:
      return "_tavmail_accounts";
    case value_kind::type:
      return "_tavmail_types";
    case value_kind::words:
      return "_tavmail_words " + shell_quoted(joined(each.suggestions()));
    default:
      return ":";
  }
}

std::string bash_script(const command_line& tool) {
  std::string out = kBashBegin;
  for (const command_line* command : tool.commands()) {
    for (const option& each : command->options()) {
      if (each.is_flag() || words_of(each).empty()) continue;
      std::vector<std::string> places;
      for (const std::string& word : words_of(each)) {
        places.push_back("\"" + command->name() + " " + word + "\"");
      }
      out += "    " + joined(places, "|") + ") " + bash_values(each) + "; return ;;\n";
    }
  }
  out += "  esac\n  case $command in\n";
  for (const command_line* command : tool.commands()) {
    out += "    " + command->name() + ") _tavmail_words " +
           shell_quoted(joined(words_of(*command))) + " ;;\n";
  }
  std::vector<std::string> first = words_of(tool);
  for (const command_line* command : tool.commands()) first.push_back(command->name());
  out += "    '') _tavmail_words " + shell_quoted(joined(first)) + " ;;\n";
  return out + "  esac\n}\ncomplete -F _tavmail tavmail\n";
}

// A text within an argument of zsh's _arguments: what means something there is escaped.
std::string for_zsh(const std::string& text) {
  std::string result;
  for (const char ch : text) {
    if (ch == '[' || ch == ']' || ch == ':' || ch == '\\') result += '\\';
    result += ch;
  }
  return result;
}

std::string zsh_values(const option& each) {
  const std::string name = ":" + for_zsh(each.value_name()) + ":";
  switch (kind_of(each)) {
    case value_kind::none:
      return "";
    case value_kind::file:
      return name + "_files";
    case value_kind::account:
      return name + "_tavmail_accounts";
    case value_kind::type:
      return name + "_tavmail_types";
    default:
      return name + "(" + joined(each.suggestions()) + ")";
  }
}

std::string zsh_arguments(const command_line& command) {
  std::string out;
  for (const option& each : command.options()) {
    const std::string told = "[" + for_zsh(each.description()) + "]" + zsh_values(each);
    const std::vector<std::string> words = words_of(each);
    for (const std::string& word : words) out += " \\\n        " + shell_quoted("*" + word + told);
    if (words.empty()) out += " \\\n        " + shell_quoted("1" + zsh_values(each));
  }
  return out;
}

std::string zsh_script(const command_line& tool) {
  std::string out = kZshBegin;
  for (const command_line* command : tool.commands()) {
    out += "    " + shell_quoted(for_zsh(command->name()) + ":" + command->description()) + "\n";
  }
  out += "  )\n  local state\n  _arguments -C" + zsh_arguments(tool) +
         " \\\n        '1: :->command' '*::word:->words'\n"
         "  case $state in\n"
         "    command) _describe command commands ;;\n"
         "    words) case $line[1] in\n";
  for (const command_line* command : tool.commands()) {
    out += "      " + command->name() + ") _arguments" + zsh_arguments(*command) + " ;;\n";
  }
  return out +
         "    esac ;;\n  esac\n}\n"
         "if [[ $funcstack[1] == _tavmail ]]; then _tavmail; else compdef _tavmail tavmail; fi\n";
}

std::string fish_values(const option& each) {
  switch (kind_of(each)) {
    case value_kind::none:
      return "";
    case value_kind::file:
      return " -r -F";
    case value_kind::account:
      return " -x -a " + shell_quoted("(" ACCOUNTS ")");
    case value_kind::type:
      return " -x -a " + shell_quoted("(" TYPES ")");
    default:
      return " -x" +
             (each.suggestions().empty() ? "" : " -a " + shell_quoted(joined(each.suggestions())));
  }
}

std::string fish_script(const command_line& tool) {
  std::string out =
      "# fish completion of tavmail: put it into ~/.config/fish/completions/tavmail.fish\n"
      "complete -c tavmail -f\n";
  for (const command_line* command : all_of(tool)) {
    const bool is_tool = command == &tool;
    const std::string begin =
        "complete -c tavmail -n " +
        (is_tool ? "__fish_use_subcommand"
                 : shell_quoted("__fish_seen_subcommand_from " + command->name()));
    if (!is_tool) {
      out += "complete -c tavmail -n __fish_use_subcommand -a " + command->name() + " -d " +
             shell_quoted(command->description()) + "\n";
    }
    for (const option& each : command->options()) {
      out += begin + (each.name().empty() ? "" : " -l " + each.name()) +
             (each.letter().empty() ? "" : " -s " + each.letter()) + fish_values(each) + " -d " +
             shell_quoted(each.description()) + "\n";
    }
  }
  return out;
}

int run_completion(const command_line& tool, const std::string& shell) {
  if (shell == "bash") {
    std::cout << bash_script(tool);
  } else if (shell == "zsh") {
    std::cout << zsh_script(tool);
  } else if (shell == "fish") {
    std::cout << fish_script(tool);
  } else {
    throw problem(EX_USAGE, "which shell? give bash, zsh or fish");
  }
  return EX_OK;
}

}  // namespace

command add_completion(command_line& tool) {
  command_line& line = tool.add_command("completion", "print a completion script for a shell");
  const auto shell = std::make_shared<std::string>();
  line.add("shell", *shell, "bash, zsh or fish")
      .suggest({"bash", "zsh", "fish"})
      .value_name("SHELL");
  return {&line, [&tool, shell] { return run_completion(tool, *shell); }};
}

}  // namespace tavmail
