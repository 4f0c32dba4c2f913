#include "account_file.h"

#include <algorithm>
#include <set>

#include "account_login.h"
#include "home_folder.h"
#include "near_word.h"
#include "problem.h"

namespace tavmail {

namespace {

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

// Several accounts, or one, and nobody has said which. Without any there is nothing to choose.
void refuse_to_guess(const configuration& files) {
  std::string names;
  for (const std::string& name : files.names()) names += (names.empty() ? "" : ", ") + name;
  if (names.empty()) return;
  throw problem(EX_USAGE,
                files.places() + " names no default account; choose one with --account: " + names);
}

// The options of all commands as keys.
std::vector<std::string> known_keys(const command_line& tool) {
  std::vector<std::string> keys = {kPasswordKey};
  for (const command_line* command : tool.commands()) {
    for (const option& each : command->options()) {
      std::string name = each.name();
      std::replace(name.begin(), name.end(), '-', '_');
      const std::set<std::string> of_runs = {"help", "config", "account", "all_accounts"};
      if (of_runs.count(name) == 0) keys.push_back(name);
    }
  }
  return keys;
}

}  // namespace

std::string option_of(std::string key) {
  std::replace(key.begin(), key.end(), '_', '-');
  return key;
}

void check_key(const command_line& tool, const config_value& value) {
  const std::vector<std::string> keys = known_keys(tool);
  if (std::find(keys.begin(), keys.end(), value.key) == keys.end()) {
    throw value.place.fault("unknown key \"" + value.key + "\"" + did_you_mean(value.key, keys));
  }
}

void give(const option& taker, const config_value& value) {
  if (!value.fault.empty()) throw value.place.fault(value.key + ": " + value.fault);
  if (taker.is_flag() && !value.is_flag) {
    throw value.place.fault(value.key + ": expected true or false");
  }
  if (taker.is_flag() && value.texts[0] == "false") return;
  std::vector<std::string> values = value.texts;
  try {
    if (is_path(taker)) std::transform(values.begin(), values.end(), values.begin(), expanded);
    taker.give(values);
  } catch (const usage_error& error) {
    throw value.place.fault(error.what());
  }
}

void check_exclusions(const command_line& command, const config_section& section) {
  const auto taker_of = [&](const config_value& value) {
    const bool is_off = value.is_flag && value.texts[0] == "false";
    return is_off ? option() : command.find(option_of(value.key));
  };
  for (const config_value& value : section.values) {
    const option one = taker_of(value);
    for (const config_value& other : section.values) {
      const option two = taker_of(other);
      if (!one || !two || !one.is_excluded_by(two)) continue;
      throw value.place.fault(value.key + " and " + other.key +
                              " exclude each other; leave one of them out");
    }
  }
}

namespace {

// Gives the value to its option, unless the option has one that counts more.
void set_option(const command_line& command, const command_line& tool, const config_value& value) {
  check_key(tool, value);
  const option found = command.find(option_of(value.key));
  // It is another command's, or the command line counts more.
  if (!found || found.is_given() || found.is_excluded()) return;
  give(found, value);
}

bool is_login_given(const command_line& command) {
  const std::vector<std::string> keys = login_keys();
  return std::any_of(keys.begin(), keys.end(), [&](const std::string& key) {
    const option found = command.find(option_of(key));
    return found && found.is_given();
  });
}

problem missing_table(const configuration& files, const std::string& account,
                      const std::string& section, const std::string& meaning) {
  return files.tables(account)[0]->place.fault("account \"" + account + "\" has no table [" +
                                               account + "." + section + "]" + meaning);
}

}  // namespace

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

std::string account_file::chosen(const configuration& files) const {
  if (!m_account.empty()) return m_account;
  const config_value* chosen = files.default_account();
  if (chosen != nullptr) return chosen->text("the name of an account");
  refuse_to_guess(files);
  return "";
}

bool account_file::apply(const command_line& command, const command_line& tool,
                         const std::string& section, endpoint_options& endpoint,
                         bool optional) const {
  const bool names_server = command.find("server").is_given();
  if (names_server && !m_account.empty()) {
    throw problem(EX_USAGE, "--account and --server exclude each other; an account has its server");
  }
  if (names_server) return false;
  const configuration files(m_path);
  const std::string name = chosen(files);
  if (name.empty()) {
    endpoint.lack = files.lack();
    return false;
  }
  files.check_places(name);
  const std::vector<config_source> sources = files.sources(name, section);
  if (sources.empty() && optional) return false;
  if (sources.empty()) throw missing_table(files, name, section, "");
  const std::vector<config_source> providers = files.sources(name, kProviderSection);
  if (!is_login_given(command)) {
    check_login(sources);
    check_refresh_token(sources, providers);
  }
  apply_sources(sources, command, tool, &endpoint);
  if (uses_provider(sources, providers)) endpoint.set_provider(provider_of(name, providers, tool));
  wipe_stack();
  return true;
}

void account_file::apply_provider(const command_line& command, const command_line& tool,
                                  token_provider& provider) const {
  const configuration files(m_path);
  provider.account = chosen(files);
  if (provider.account.empty()) throw problem(EX_USAGE, "which account? give its name");
  files.check_places(provider.account);
  const std::vector<config_source> sources = files.sources(provider.account, kProviderSection);
  if (sources.empty()) {
    throw missing_table(files, provider.account, kProviderSection,
                        ", which says who gives its tokens");
  }
  for (const char* section : {"smtp", "pop3"}) {
    check_refresh_token(files.sources(provider.account, section), sources);
  }
  apply_sources(sources, command, tool, nullptr);
}

token_provider provider_of(const std::string& account, const std::vector<config_source>& sources,
                           const command_line& tool) {
  token_provider provider;
  command_line own;
  provider.add_to(own);
  provider.account = account;
  apply_sources(sources, own, tool, nullptr);
  return provider;
}

void apply_sources(const std::vector<config_source>& sources, const command_line& command,
                   const command_line& tool, endpoint_options* endpoint) {
  std::set<std::string> settled;  // keys that a source before has
  for (const config_source& source : sources) {
    check_exclusions(command, *source.section);
    for (const config_value& value : source.section->values) {
      if (settled.count(value.key) != 0) continue;
      if (value.key != kPasswordKey || endpoint == nullptr) {
        set_option(command, tool, value);
      } else {
        endpoint->set_password({value.text("a text"), value.place.file + ": password"});
      }
    }
    settle(*source.section, settled);
  }
}

}  // namespace tavmail
