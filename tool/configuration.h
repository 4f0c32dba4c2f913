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
  size_t rank;   // of its account's table: of those of all files, what comes first counts more
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
  // Throws a problem when something that counts for the account stands in the wrong place: it would
  // have no effect, and may be a limit to what goes out.
  void check_places(const std::string& account) const;

 private:
  // The account, the one that it inherits from, and so on.
  std::vector<std::string> line_of(const std::string& account) const;

  std::vector<config_file> m_files;
  std::vector<std::string> m_sought;  // and not found
};

// The keys that name the account that counts, and the one from which an account inherits.
extern const char kDefaultKey[];
extern const char kInheritKey[];
// The table of an account that says who gives its tokens.
extern const char kProviderSection[];

// What stands at the top of a file, or in an account's table, and means nothing there.
std::vector<problem> misplaced(const config_file& file);
std::vector<problem> misplaced(const config_account& account);

}  // namespace tavmail

#endif
