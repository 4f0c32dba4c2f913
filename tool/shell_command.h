// shell_command.h - commands of the user's that print a secret or take one.

#ifndef SHELL_COMMAND_H
#define SHELL_COMMAND_H

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "input_file.h"

namespace tavmail {

// A command of the shell, with what it prints and what it reads. It ends with the run.
class shell_command {
 public:
  using clock = std::chrono::steady_clock;
  static constexpr clock::time_point kNoEnd = clock::time_point::max();

  struct settings {
    std::string what;        // names it in messages: "--password-command"
    std::string variable;    // "NAME=VALUE" of its environment, "" for none
    std::string_view input;  // what it reads; few bytes. With none it reads what the tool does
    clock::time_point end = kNoEnd;  // it has to be over by then
  };

  // Throws a problem, as all else here.
  shell_command(const std::string& line, const settings& given);
  shell_command(const shell_command&) = delete;
  shell_command& operator=(const shell_command&) = delete;
  ~shell_command();

  // Up to `size` bytes of what it prints; 0 at the end.
  size_t read_some(char* bytes, size_t size);
  // Reads the rest and waits for its end, which is a problem unless it succeeded.
  void finish();

 private:
  [[noreturn]] void fail() const;
  [[noreturn]] void fail_late() const;
  void start(const std::string& line, const std::string& variable, int input, int output);
  void set_timer();
  bool is_running();

  const std::string m_what;
  const clock::time_point m_end;
  pid_t m_pid = 0;
  int m_status = -1;
  int m_output = -1;
  int m_timer = -1;  // becomes readable at the end; -1 for none
  std::unique_ptr<input_file> m_reader;
};

}  // namespace tavmail

#endif
