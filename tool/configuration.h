// configuration.h - the accounts of the user's configuration file, and of the system's below it.

#ifndef CONFIGURATION_H
#define CONFIGURATION_H

#include <string>
#include <vector>

#include "config_file.h"

namespace tavmail {

// A section that counts for an account: its own, or one of an account that it inherits from.
struct config_source {
  std::string account;
  size_t depth;  // 0 for the account itself, 1 for the one that it inherits from, ...
  const config_section* section;
};

class configuration {
 public:
  // `path` takes the place of the user's file, which need not be there; "" for the usual one.
  // Throws a problem.
  explicit configuration(const std::string& path = "");

  static std::string user_path();
  static std::string system_path();

  // Those that are there, the user's first.
  const std::vector<config_file>& files() const { return m_files; }
  // For messages: "FILE and FILE"; "there is neither FILE nor FILE" when none is there, else "".
  std::string places() const;
  std::string lack() const;

  // The value of the key "default"; null when there is none.
  const config_value* default_account() const;
  std::vector<std::string> names() const;
  // Those that have a server in the section, "" for any.
  std::vector<std::string> names_with_server(const std::string& section) const;

  // The tables of the account. Throws a problem when there is none.
  std::vector<const config_account*> tables(const std::string& account) const;
  // All that counts for a section of the account: what comes first counts more. Throws a problem:
  // there is no such account, or one inherits from itself.
  std::vector<config_source> sources(const std::string& account, const std::string& section) const;

 private:
  std::vector<config_file> m_files;
  std::vector<std::string> m_sought;  // and not found
};

// The key that names the account from which one inherits.
extern const char kInheritKey[];

// The folder of a user, "" when there is none; without a name of the one who runs this.
std::string home_of(const std::string& user);

}  // namespace tavmail

#endif
