// problem.h - what goes wrong, for a person and for a script.

#ifndef PROBLEM_H
#define PROBLEM_H

#include <sysexits.h>

#include <stdexcept>
#include <string>

namespace tavmail {

// Ends the command: one sentence that says what is wrong and what to do, and an exit code after
// sysexits.h. A script is told more: at which stage it was, what the server said and the library's
// code.
class problem : public std::runtime_error {
 public:
  problem(int exit_code, const std::string& sentence)
      : std::runtime_error(sentence), m_nExitCode(exit_code) {}

  int exit_code() const { return m_nExitCode; }

  problem& at(const std::string& stage, const std::string& reply, const std::string& code) {
    m_cStage = stage;
    m_cReply = reply;
    m_cCode = code;
    return *this;
  }
  const std::string& stage() const { return m_cStage; }
  const std::string& reply() const { return m_cReply; }
  const std::string& code() const { return m_cCode; }

 private:
  int m_nExitCode;
  std::string m_cStage;
  std::string m_cReply;
  std::string m_cCode;
};

}  // namespace tavmail

#endif
