#include "configuration.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "home_folder.h"
#include "near_word.h"
#include "words.h"

namespace tavmail {

const char kDefaultKey[] = "default";
const char kInheritKey[] = "inherit";
const char kProviderSection[] = "oauth";

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
    if (const config_value* value = file.find(kDefaultKey)) return value;
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

std::vector<std::string> configuration::line_of(const std::string& account) const {
  std::vector<std::string> line = {account};
  for (;;) {
    const config_value* parent = nullptr;
    for (const config_account* table : tables(line.back())) {
      if (parent == nullptr) parent = table->find(kInheritKey);
    }
    if (parent == nullptr) return line;
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
}

std::vector<config_source> configuration::sources(const std::string& account,
                                                  const std::string& section) const {
  std::vector<config_source> sources;
  size_t depth = 0;
  size_t rank = 0;
  for (const std::string& name : line_of(account)) {
    for (const config_account* table : tables(name)) {
      const config_section* const own = table->section(section);
      if (own != nullptr) sources.push_back({name, depth, rank, own});
      ++rank;
    }
    ++depth;
  }
  return sources;
}

void configuration::check_places(const std::string& account) const {
  for (const config_file& file : m_files) {
    for (const problem& fault : misplaced(file)) throw fault;
  }
  for (const std::string& name : line_of(account)) {
    for (const config_account* table : tables(name)) {
      for (const problem& fault : misplaced(*table)) throw fault;
    }
  }
}

std::vector<problem> misplaced(const config_file& file) {
  std::vector<problem> faults;
  for (const config_value& value : file.values) {
    if (value.key == kDefaultKey) continue;
    faults.push_back(value.place.fault("unknown key \"" + value.key +
                                       "\"; at the top only \"default\" can stand"));
  }
  return faults;
}

std::vector<problem> misplaced(const config_account& account) {
  std::vector<problem> faults;
  const std::string& name = account.name;
  for (const config_value& value : account.values) {
    if (value.key == kInheritKey) continue;
    faults.push_back(value.place.fault("unknown key \"" + value.key + "\"; options stand in [" +
                                       name + ".smtp] or [" + name + ".pop3]"));
  }
  for (const config_section& section : account.sections) {
    if (is_one_of(section.name, {"smtp", "pop3", kProviderSection})) continue;
    faults.push_back(section.place.fault("unknown table [" + name + "." + section.name +
                                         "]; it is smtp, pop3 or oauth"));
  }
  return faults;
}

}  // namespace tavmail
