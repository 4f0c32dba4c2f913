// invocation.h - a command line as it was given.

#ifndef INVOCATION_H
#define INVOCATION_H

#include <vector>

#include "commands.h"

namespace tavmail {

// Read anew for each run: a run leaves nothing to the next one.
class invocation {
 public:
  // Throws a usage_error.
  invocation(int argc, const char* const* argv, const char* version);

  // The help or the version was asked for.
  bool is_answered() const { return m_isAnswered; }

  // Throws a problem: there is no command, or a word that is not known.
  const command& chosen() const;

 private:
  command_line m_tool;
  std::vector<command> m_commands;
  bool m_isAnswered = false;
};

}  // namespace tavmail

#endif
