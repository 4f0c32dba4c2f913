// problem.h - what goes wrong, for a person and for a script.

#ifndef PROBLEM_H
#define PROBLEM_H

#include <sysexits.h>

#include <stdexcept>
#include <string>

namespace tavmail {

// Ends the command: one sentence that says what is wrong and what to do, and an exit code after
// sysexits.h.
class problem : public std::runtime_error {
 public:
  problem(int exit_code, const std::string& sentence)
      : std::runtime_error(sentence), m_nExitCode(exit_code) {}

  int exit_code() const { return m_nExitCode; }

 private:
  int m_nExitCode;
};

}  // namespace tavmail

#endif
