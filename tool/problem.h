// problem.h - what goes wrong, for a person and for a script.

#ifndef PROBLEM_H
#define PROBLEM_H

#include <sysexits.h>

#include <stdexcept>
#include <string>

namespace tavmail {

// What was found out about a failure.
struct finding {
  int exit_code;
  std::string cause;
  std::string remedy;             // "" when there is none
  bool is_said_by_server = true;  // what the server said belongs to it
};

// Ends the command: one sentence that says what is wrong and what to do, and an exit code after
// sysexits.h. A script is told more: at which stage it was, what the server said and the library's
// code.
class problem : public std::runtime_error {
 public:
  problem(int exit_code, const std::string& sentence)
      : std::runtime_error(sentence), m_nExitCode(exit_code), m_cCause(sentence) {}

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

  // The sentence in its parts.
  problem& in_parts(const std::string& cause, const std::string& remedy) {
    m_cCause = cause;
    m_cRemedy = remedy;
    return *this;
  }
  const std::string& cause() const { return m_cCause; }
  const std::string& remedy() const { return m_cRemedy; }

  // The recipient that the server refused, "" for none.
  problem& about(const std::string& recipient) {
    m_cRecipient = recipient;
    return *this;
  }
  const std::string& recipient() const { return m_cRecipient; }

 private:
  int m_nExitCode;
  std::string m_cStage;
  std::string m_cReply;
  std::string m_cCode;
  std::string m_cCause;
  std::string m_cRemedy;
  std::string m_cRecipient;
};

}  // namespace tavmail

#endif
