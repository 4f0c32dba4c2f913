#include "account_file.h"

#include <pwd.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "input_file.h"
#include "near_word.h"
#include "problem.h"

namespace tavmail {

namespace {

constexpr char kPassword[] = "password";
constexpr size_t kLargestFile = 1 << 20;

// The folder of a user, "" when there is none; without a name of the one who runs this.
std::string home_of(const std::string& user) {
  const char* home = std::getenv("HOME");
  if (user.empty() && home != nullptr && *home != '\0') return home;
  const passwd* entry = user.empty() ? getpwuid(getuid()) : getpwnam(user.c_str());
  return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "";
}

// A path that may begin with "~" or "~user", as a shell takes it. Throws a problem.
std::string expanded(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  const size_t slash = std::min(path.find('/'), path.size());
  const std::string home = home_of(path.substr(1, slash - 1));
  if (home.empty()) throw problem(EX_CONFIG, path.substr(0, slash) + " has no home folder");
  return home + path.substr(slash);
}

// Whether the option takes the path of a file or folder.
bool is_path(const option& given) {
  return given.value_name() == "FILE" || given.value_name() == "DIR";
}

// Overwrites what earlier calls left on the stack: short texts are not on the heap.
[[gnu::noinline]] void wipe_stack() {
  char below[size_t{256} << 10];
  explicit_bzero(below, sizeof below);
}

// The file as read, for messages that name its lines.
class document {
 public:
  explicit document(const std::string& path) : m_path(path) {
    input_file file(path, "the configuration");
    const std::string text = file.read_all(kLargestFile);
    if (text.size() > kLargestFile) throw problem(EX_CONFIG, path + " is no configuration file");
    try {
      m_table = toml::parse(text, path);
      wipe_stack();
    } catch (const toml::parse_error& error) {
      throw at(error.source().begin.line, std::string(error.description()));
    }
    if (file.is_open_to_others() && has_secret(m_table)) {
      throw problem(EX_CONFIG, "others can read the passwords in " + path + "; chmod 600 it");
    }
  }

  const toml::table& table() const { return m_table; }

  problem at(size_t line, const std::string& text) const {
    return problem(EX_CONFIG, m_path + ":" + std::to_string(line) + ": " + text);
  }
  problem at(const toml::node& node, const std::string& text) const {
    return at(node.source().begin.line, text);
  }

 private:
  static bool has_secret(const toml::table& table) {
    for (const auto& [key, node] : table) {
      if (key.str() == kPassword) return true;
      if (const toml::table* inner = node.as_table(); inner != nullptr && has_secret(*inner)) {
        return true;
      }
    }
    return false;
  }

  const std::string m_path;
  toml::table m_table;
};

std::vector<std::string> keys_of(const toml::table& table) {
  std::vector<std::string> keys;
  for (const auto& [key, node] : table) {
    if (node.is_table()) keys.emplace_back(key.str());
  }
  return keys;
}

const toml::table& find_account(const document& file, const std::string& wanted,
                                const std::string& path) {
  const toml::node* node = file.table().get(wanted);
  if (node == nullptr || !node->is_table()) {
    throw problem(EX_CONFIG, "no account \"" + wanted + "\" in " + path +
                                 did_you_mean(wanted, keys_of(file.table())));
  }
  return *node->as_table();
}

// Several accounts, or one, and nobody has said which. Without any there is nothing to choose.
void refuse_to_guess(const document& file, const std::string& path) {
  std::string names;
  for (const std::string& name : keys_of(file.table())) {
    names += (names.empty() ? "" : ", ") + name;
  }
  if (names.empty()) return;
  throw problem(EX_USAGE, path + " names no default account; choose one with --account: " + names);
}

// A value as the command line would have it; several for an array.
std::vector<std::string> values_of(const document& file, const std::string& key,
                                   const toml::node& node) {
  if (const auto text = node.value_exact<std::string>()) return {*text};
  if (const auto number = node.value_exact<int64_t>()) return {std::to_string(*number)};
  if (const auto flag = node.value_exact<bool>()) return {*flag ? "true" : "false"};
  const toml::array* array = node.as_array();
  if (array == nullptr) {
    throw file.at(node, key + ": expected a text, a number, true or false, or a list of texts");
  }
  std::vector<std::string> values;
  for (const toml::node& element : *array) {
    const auto text = element.value_exact<std::string>();
    if (!text) throw file.at(element, key + ": expected a text");
    values.push_back(*text);
  }
  return values;
}

// The options of all commands as keys.
std::vector<std::string> known_keys(const command_line& tool) {
  std::vector<std::string> keys = {kPassword};
  for (const command_line* command : tool.commands()) {
    for (const option& each : command->options()) {
      std::string name = each.name();
      std::replace(name.begin(), name.end(), '-', '_');
      if (name != "help" && name != "config" && name != "account") keys.push_back(name);
    }
  }
  return keys;
}

void set_option(const document& file, const command_line& command, const command_line& tool,
                const std::string& key, const toml::node& node) {
  std::string name = key;
  std::replace(name.begin(), name.end(), '_', '-');
  const std::vector<std::string> keys = known_keys(tool);
  if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
    throw file.at(node, "unknown key \"" + key + "\"" + did_you_mean(key, keys));
  }
  const option found = command.find(name);
  // It is another command's, or the command line counts more.
  if (!found || found.is_given()) return;
  std::vector<std::string> values = values_of(file, key, node);
  const bool is_flag = found.is_flag();
  if (is_flag && !node.is_boolean()) throw file.at(node, key + ": expected true or false");
  if (is_flag && values[0] == "false") return;
  try {
    if (is_path(found)) std::transform(values.begin(), values.end(), values.begin(), expanded);
    found.give(values);
  } catch (const usage_error& error) {
    throw file.at(node, error.what());
  }
}

// The account that was asked for, else the one of the file; "" when that has none.
std::string chosen_account(const document& file, const std::string& path,
                           const std::string& wanted) {
  if (!wanted.empty()) return wanted;
  const toml::node* chosen = file.table().get("default");
  if (chosen == nullptr) {
    refuse_to_guess(file, path);
    return "";
  }
  if (!chosen->is_string()) throw file.at(*chosen, "default: expected the name of an account");
  return *chosen->value<std::string>();
}

// Fills the options of `command` from the account's table about its provider. False when there is
// none.
bool read_provider(const document& file, const toml::table& account, const command_line& command,
                   const command_line& tool) {
  const toml::table* const table = account["oauth"].as_table();
  if (table == nullptr) return false;
  for (const auto& [key, node] : *table) {
    set_option(file, command, tool, std::string(key.str()), node);
  }
  return true;
}

}  // namespace

std::string account_file::default_path() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config != nullptr && *config == '/') return std::string(config) + "/tavmail/config.toml";
  return home_of("") + "/.config/tavmail/config.toml";
}

void account_file::add_to(command_line& command) { add_named(command, "-A,--account"); }

void account_file::add_positional_to(command_line& command) {
  add_named(command, "-A,--account,account");
}

void account_file::add_named(command_line& command, const char* names) {
  command.add(names, m_account, "account of the configuration file")
      .value_name("NAME")
      .group("Server");
  command.add("--config", m_path, "in place of ~/.config/tavmail/config.toml")
      .value_name("FILE")
      .group("Server");
}

bool account_file::apply(const command_line& command, const command_line& tool,
                         const std::string& section, endpoint_options& endpoint,
                         bool optional) const {
  const bool names_server = command.find("server").is_given();
  if (names_server && !m_account.empty()) {
    throw problem(EX_USAGE, "--account and --server exclude each other; an account has its server");
  }
  if (names_server) return false;
  const std::string path = m_path.empty() ? default_path() : m_path;
  std::error_code error;
  const bool is_there = std::filesystem::exists(path, error);
  // One that cannot be looked for may be there.
  if (!is_there && !error && m_path.empty() && m_account.empty()) return false;
  const document file(path);
  const std::string name = chosen_account(file, path, m_account);
  if (name.empty()) return false;
  const toml::table& account = find_account(file, name, path);
  const toml::node* table = account.get(section);
  if (table == nullptr && optional) return false;
  if (table == nullptr || !table->is_table()) {
    throw file.at(account, "account \"" + name + "\" has no table [" + name + "." + section + "]");
  }
  for (const auto& [key, node] : *table->as_table()) {
    if (key.str() == kPassword) {
      if (!node.is_string()) throw file.at(node, "password: expected a text");
      endpoint.set_password({node.as_string()->get(), path + ": password"});
    } else {
      set_option(file, command, tool, std::string(key.str()), node);
    }
  }
  token_provider provider;
  command_line own;
  provider.add_to(own);
  provider.account = name;
  if (read_provider(file, account, own, tool)) endpoint.set_provider(provider);
  return true;
}

void account_file::apply_provider(const command_line& command, const command_line& tool,
                                  token_provider& provider) const {
  const std::string path = m_path.empty() ? default_path() : m_path;
  const document file(path);
  provider.account = chosen_account(file, path, m_account);
  if (provider.account.empty()) throw problem(EX_USAGE, "which account? give its name");
  const toml::table& account = find_account(file, provider.account, path);
  if (!read_provider(file, account, command, tool)) {
    throw file.at(account, "account \"" + provider.account + "\" has no table [" +
                               provider.account + ".oauth], which says who gives its tokens");
  }
}

}  // namespace tavmail
