// tavmail completion: scripts for the shells, made from the options themselves.

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "problem.h"

namespace tavmail {

namespace {

std::vector<std::string> options_of(const command_line& app) {
  std::vector<std::string> words;
  for (const option& each : app.options()) {
    if (!each.name().empty()) words.push_back("--" + each.name());
  }
  return words;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

std::vector<std::string> commands_of(const command_line& tool) {
  std::vector<std::string> names;
  for (const command_line* command : tool.commands()) names.push_back(command->name());
  return names;
}

// Options whose value is a file or a folder.
constexpr char kFiles[] =
    "--attach|-a|--text-file|--html-file|--raw|--password-file|--pop3-password-file|--ca-file|--"
    "config|--seen|"
    "--folder|-d|--client-secret-file";

std::string bash_script(const command_line& tool) {
  std::string out =
      "# bash completion of tavmail: source this file, or put it into\n"
      "# ~/.local/share/bash-completion/completions/tavmail\n"
      "_tavmail() {\n"
      "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]}\n"
      "  case $before in\n    " +
      std::string(kFiles) +
      ")\n      COMPREPLY=($(compgen -f -- \"$word\")); return ;;\n"
      "    --tls|--pop3-tls) COMPREPLY=($(compgen -W 'starttls implicit none' -- \"$word\")); "
      "return ;;\n"
      "    --charset) COMPREPLY=($(compgen -W 'utf-8 iso-2022-jp shift_jis' -- \"$word\")); return "
      ";;\n"
      "    --auth) COMPREPLY=($(compgen -W 'smtp none pop pop+smtp' -- \"$word\")); return ;;\n"
      "    --protocol) COMPREPLY=($(compgen -W 'smtp pop3' -- \"$word\")); return ;;\n"
      "    completion) COMPREPLY=($(compgen -W 'bash zsh fish' -- \"$word\")); return ;;\n"
      "  esac\n"
      "  case ${COMP_WORDS[1]} in\n";
  for (const command_line* command : tool.commands()) {
    out += "    " + command->name() + ") COMPREPLY=($(compgen -W '" + joined(options_of(*command)) +
           "' -- \"$word\")) ;;\n";
  }
  out += "    *) COMPREPLY=($(compgen -W '" + joined(commands_of(tool)) + " " +
         joined(options_of(tool)) + "' -- \"$word\")) ;;\n";
  return out + "  esac\n}\ncomplete -F _tavmail tavmail\n";
}

std::string zsh_script(const command_line& tool) {
  return "#compdef tavmail\n# zsh completion of tavmail: put it into a folder of $fpath as "
         "_tavmail\nautoload -U +X bashcompinit && bashcompinit\n" +
         bash_script(tool);
}

// A text between single quotes.
std::string quoted(const std::string& text) {
  std::string result = "'";
  for (const char ch : text) result += ch == '\'' ? std::string("\\'") : std::string(1, ch);
  return result + "'";
}

std::string fish_script(const command_line& tool) {
  std::string out =
      "# fish completion of tavmail: put it into ~/.config/fish/completions/tavmail.fish\n"
      "complete -c tavmail -f\n";
  for (const command_line* command : tool.commands()) {
    const std::string name = command->name();
    out += "complete -c tavmail -n __fish_use_subcommand -a " + name + " -d " +
           quoted(command->description()) + "\n";
    for (const option& each : command->options()) {
      if (each.name().empty()) continue;
      out += "complete -c tavmail -n '__fish_seen_subcommand_from " + name + "' -l " + each.name();
      if (!each.letter().empty()) out += " -s " + each.letter();
      if (!each.is_flag()) out += " -r -F";
      out += " -d " + quoted(each.description()) + "\n";
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
  line.add("shell", *shell, "bash, zsh or fish").value_name("SHELL");
  return {&line, [&tool, shell] { return run_completion(tool, *shell); }};
}

}  // namespace tavmail
