#include "configuration.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "near_word.h"
#include "words.h"

namespace tavmail {

const char kInheritKey[] = "inherit";

namespace {

bool is_one_of(const std::string& word, const std::vector<std::string>& words) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

// One that cannot be looked for may be there.
bool is_missing(const std::string& path) {
  std::error_code error;
  return !std::filesystem::exists(path, error) && !error;
}

}  // namespace

std::string home_of(const std::string& user) {
  const char* home = std::getenv("HOME");
  if (user.empty() && home != nullptr && *home != '\0') return home;
  const passwd* entry = user.empty() ? getpwuid(getuid()) : getpwnam(user.c_str());
  return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "";
}

std::string configuration::user_path() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config != nullptr && *config == '/') return std::string(config) + "/tavmail/config.toml";
  return home_of("") + "/.config/tavmail/config.toml";
}

std::string configuration::system_path() {
  const char* path = std::getenv("TAVMAIL_SYSTEM_CONFIG");
  return path != nullptr ? path : "/etc/tavmail.toml";
}

configuration::configuration(const std::string& path) {
  const std::string user = path.empty() ? user_path() : path;
  if (path.empty() && is_missing(user)) {
    m_sought.push_back(user);
  } else {
    m_files.push_back(read_config(user));
  }
  const std::string system = system_path();
  if (system.empty()) return;
  // It may be for others: with passwords it is for root alone.
  if (is_missing(system) || access(system.c_str(), R_OK) != 0) {
    m_sought.push_back(system + (is_missing(system) ? "" : " (not readable)"));
  } else {
    m_files.push_back(read_config(system));
  }
}

std::string configuration::places() const {
  std::vector<std::string> paths;
  for (const config_file& file : m_files) paths.push_back(file.path);
  return joined(paths, " and ");
}

std::string configuration::lack() const {
  if (!m_files.empty()) return "";
  return std::string("there is ") + (m_sought.size() > 1 ? "neither " : "no ") +
         joined(m_sought, " nor ");
}

const config_value* configuration::default_account() const {
  for (const config_file& file : m_files) {
    if (const config_value* value = file.find("default")) return value;
  }
  return nullptr;
}

std::vector<std::string> configuration::names() const {
  std::vector<std::string> names;
  for (const config_file& file : m_files) {
    for (const config_account& account : file.accounts) {
      if (!is_one_of(account.name, names)) names.push_back(account.name);
    }
  }
  return names;
}

std::vector<std::string> configuration::names_with_server(const std::string& section) const {
  std::vector<std::string> with;
  const auto has_server = [&](const std::string& name, const char* one) {
    if (!section.empty() && section != one) return false;
    const std::vector<config_source> all = sources(name, one);
    return std::any_of(all.begin(), all.end(), [](const config_source& source) {
      return source.section->find("server") != nullptr;
    });
  };
  for (const std::string& name : names()) {
    if (has_server(name, "smtp") || has_server(name, "pop3")) with.push_back(name);
  }
  return with;
}

std::vector<const config_account*> configuration::tables(const std::string& account) const {
  std::vector<const config_account*> tables;
  for (const config_file& file : m_files) {
    if (const config_account* table = file.account(account)) tables.push_back(table);
  }
  if (!tables.empty()) return tables;
  if (m_files.empty()) {
    throw problem(EX_NOINPUT, "no account \"" + account + "\": " + lack() + "; write it first");
  }
  throw problem(EX_CONFIG,
                "no account \"" + account + "\" in " + places() + did_you_mean(account, names()));
}

std::vector<config_source> configuration::sources(const std::string& account,
                                                  const std::string& section) const {
  std::vector<config_source> sources;
  std::vector<std::string> line = {account};
  for (size_t at = 0; at < line.size(); ++at) {
    const config_value* parent = nullptr;
    for (const config_account* table : tables(line[at])) {
      if (const config_section* own = table->section(section))
        sources.push_back({line[at], at, own});
      if (parent == nullptr) parent = table->find(kInheritKey);
    }
    if (parent == nullptr) break;
    const std::string& name = parent->text("the name of an account");
    if (is_one_of(name, line)) {
      throw parent->place.fault("account \"" + name +
                                "\" inherits from itself: " + joined(line, ", ") + ", " + name);
    }
    if (!is_one_of(name, names())) {
      throw parent->place.fault("no account \"" + name + "\" to inherit from" +
                                did_you_mean(name, names()));
    }
    line.push_back(name);
  }
  return sources;
}

}  // namespace tavmail
