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
      : std::runtime_error(sentence), m_exitCode(exit_code), m_cause(sentence) {}

  // The sentence in its parts.
  problem(int exit_code, const std::string& cause, const std::string& remedy)
      : std::runtime_error(cause + "; " + remedy),
        m_exitCode(exit_code),
        m_cause(cause),
        m_remedy(remedy) {}

  int exit_code() const { return m_exitCode; }

  problem& at(const std::string& stage, const std::string& reply, const std::string& code) {
    m_stage = stage;
    m_reply = reply;
    m_code = code;
    return *this;
  }
  const std::string& stage() const { return m_stage; }
  const std::string& reply() const { return m_reply; }
  const std::string& code() const { return m_code; }

  // The sentence in its parts.
  problem& in_parts(const std::string& cause, const std::string& remedy) {
    m_cause = cause;
    m_remedy = remedy;
    return *this;
  }
  const std::string& cause() const { return m_cause; }
  const std::string& remedy() const { return m_remedy; }

  // The recipient that the server refused, "" for none.
  problem& about(const std::string& recipient) {
    m_recipient = recipient;
    return *this;
  }
  const std::string& recipient() const { return m_recipient; }

  // It may pass, and it is certain that nothing was sent or received: another try does no harm.
  problem& allow_repetition() {
    m_mayBeRepeated = true;
    return *this;
  }
  bool may_be_repeated() const { return m_mayBeRepeated; }

 private:
  int m_exitCode;
  std::string m_stage;
  std::string m_reply;
  std::string m_code;
  std::string m_cause;
  std::string m_remedy;
  std::string m_recipient;
  bool m_mayBeRepeated = false;
};

}  // namespace tavmail

#endif
