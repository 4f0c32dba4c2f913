#include "config_file.h"

#include <sys/stat.h>
#include <toml++/toml.h>

#include <algorithm>
#include <cstring>

#include "input_file.h"

namespace tavmail {

const char kPasswordKey[] = "password";

namespace {

constexpr size_t kLargestConfig = 1 << 20;

template <typename Item>
const Item* found(const std::vector<Item>& items, const std::string& name,
                  std::string Item::*member) {
  for (const Item& item : items) {
    if (item.*member == name) return &item;
  }
  return nullptr;
}

// Makes of the parser's tree what the tool works with.
class reader {
 public:
  explicit reader(const std::string& path) : m_path(path) {}

  config_file file(const toml::table& table) const {
    config_file file;
    file.path = m_path;
    for (const auto& [key, node] : table) {
      if (const toml::table* inner = node.as_table()) {
        file.accounts.push_back(account(key.str(), *inner));
      } else {
        file.values.push_back(value(key.str(), node));
      }
    }
    return file;
  }

 private:
  config_place place(const toml::node& node) const { return {m_path, node.source().begin.line}; }

  config_account account(std::string_view name, const toml::table& table) const {
    config_account account;
    account.name = name;
    account.place = place(table);
    for (const auto& [key, node] : table) {
      if (const toml::table* inner = node.as_table()) {
        account.sections.push_back(section(key.str(), *inner));
      } else {
        account.values.push_back(value(key.str(), node));
      }
    }
    return account;
  }

  config_section section(std::string_view name, const toml::table& table) const {
    config_section section;
    section.name = name;
    section.place = place(table);
    for (const auto& [key, node] : table) section.values.push_back(value(key.str(), node));
    return section;
  }

  config_value value(std::string_view key, const toml::node& node) const {
    config_value value;
    value.key = key;
    value.place = place(node);
    if (const auto* text = node.as_string()) {
      value.is_text = true;
      value.texts.push_back(text->get());
    } else if (const auto number = node.value_exact<int64_t>()) {
      value.texts.push_back(std::to_string(*number));
    } else if (const auto flag = node.value_exact<bool>()) {
      value.is_flag = true;
      value.texts.emplace_back(*flag ? "true" : "false");
    } else if (const toml::array* array = node.as_array()) {
      take_list(*array, value);
    } else {
      value.fault = "expected a text, a number, true or false, or a list of texts";
    }
    return value;
  }

  void take_list(const toml::array& array, config_value& value) const {
    for (const toml::node& element : array) {
      if (const auto* text = element.as_string()) {
        value.texts.push_back(text->get());
      } else if (value.fault.empty()) {
        value.place = place(element);
        value.fault = "expected a text";
      }
    }
  }

  const std::string m_path;
};

bool has_secret(const config_file& file) {
  const auto is_secret = [](const std::vector<config_value>& values) {
    return found(values, kPasswordKey, &config_value::key) != nullptr;
  };
  if (is_secret(file.values)) return true;
  for (const config_account& account : file.accounts) {
    if (is_secret(account.values)) return true;
    for (const config_section& section : account.sections) {
      if (is_secret(section.values)) return true;
    }
  }
  return false;
}

config_file parse(const std::string& path, const std::string& text) {
  try {
    return reader(path).file(toml::parse(text, path));
  } catch (const toml::parse_error& error) {
    throw config_place{path, error.source().begin.line}.fault(std::string(error.description()));
  }
}

}  // namespace

problem config_place::fault(const std::string& sentence) const {
  return problem(EX_CONFIG, text() + ": " + sentence);
}

const std::string& config_value::text(const char* what) const {
  if (!is_text) throw place.fault(key + ": expected " + what);
  return texts[0];
}

const config_value* config_section::find(const std::string& key) const {
  return found(values, key, &config_value::key);
}

const config_value* config_account::find(const std::string& key) const {
  return found(values, key, &config_value::key);
}

const config_section* config_account::section(const std::string& wanted) const {
  return found(sections, wanted, &config_section::name);
}

const config_value* config_file::find(const std::string& key) const {
  return found(values, key, &config_value::key);
}

const config_account* config_file::account(const std::string& name) const {
  return found(accounts, name, &config_account::name);
}

config_file read_config(const std::string& path) {
  input_file source(path, "the configuration");
  const std::string text = source.read_all(kLargestConfig);
  if (text.size() > kLargestConfig) throw problem(EX_CONFIG, path + " is no configuration file");
  // Its commands would be theirs. A device such as /dev/null is not meant.
  if (S_ISREG(source.status().st_mode) && (source.status().st_mode & S_IWOTH) != 0) {
    throw problem(EX_CONFIG, "others can write " + path + "; chmod o-w it");
  }
  config_file file = parse(path, text);
  wipe_stack();
  if (source.is_open_to_others() && has_secret(file)) {
    throw problem(EX_CONFIG, "others can read the passwords in " + path + "; chmod 600 it");
  }
  return file;
}

[[gnu::noinline]] void wipe_stack() {
  char below[size_t{256} << 10];
  explicit_bzero(below, sizeof below);
}

}  // namespace tavmail
