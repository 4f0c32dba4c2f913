// config_file.h - a configuration file as it is written.

#ifndef CONFIG_FILE_H
#define CONFIG_FILE_H

#include <string>
#include <vector>

#include "problem.h"

namespace tavmail {

// Where something stands. Problems name it.
struct config_place {
  std::string file;
  size_t line = 0;

  std::string text() const { return file + ":" + std::to_string(line); }
  problem fault(const std::string& sentence) const;
};

// A value as the command line would have it.
struct config_value {
  std::string key;
  config_place place;
  std::vector<std::string> texts;  // several for a list
  std::string fault;               // why it is no value, "" when it is one
  bool is_text = false;
  bool is_flag = false;  // "true" or "false"

  // Throws a problem.
  const std::string& text(const char* what) const;
};

// [ACCOUNT.smtp] or [ACCOUNT.pop3].
struct config_section {
  std::string name;
  config_place place;
  std::vector<config_value> values;

  const config_value* find(const std::string& key) const;
};

// [ACCOUNT].
struct config_account {
  std::string name;
  config_place place;
  std::vector<config_value> values;
  std::vector<config_section> sections;

  const config_value* find(const std::string& key) const;
  const config_section* section(const std::string& name) const;
};

struct config_file {
  std::string path;
  std::vector<config_value> values;
  std::vector<config_account> accounts;

  const config_value* find(const std::string& key) const;
  const config_account* account(const std::string& name) const;
};

// The key of a password itself.
extern const char kPasswordKey[];

// Throws a problem: the file cannot be read, is no TOML, or has passwords and can be read by
// others. Nobody else may write it either: everybody could put a command into it.
config_file read_config(const std::string& path);

// Overwrites what earlier calls left on the stack: short texts are not on the heap.
void wipe_stack();

}  // namespace tavmail

#endif
