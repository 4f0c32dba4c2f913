#include <paths.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <thread>
#include <vector>

#include "interrupt.h"
#include "mail_store.h"
#include "spool_file.h"
#include "trust_store.h"

namespace tavmail {

namespace {

using clock = std::chrono::steady_clock;

constexpr int kProgramPatience = 600;  // seconds; servers end sessions that are silent for longer
constexpr int kNotExecutable = 126;    // what the shell ends with
constexpr int kNotFound = 127;

// A command of the shell that reads a file. It ends with the run, and so do the programs that it
// has started: they are a process group.
class running_command {
 public:
  running_command(const std::string& command, int input, bool is_quiet) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    if (is_quiet) posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    posix_spawnattr_t attributes;  // a group of its own, as it is made
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    const char* const line[] = {"sh", "-c", command.c_str(), nullptr};
    std::vector<const char*> variables = environment_of_commands();
    variables.push_back(nullptr);
    const int error =
        posix_spawn(&m_pid, _PATH_BSHELL, &actions, &attributes, const_cast<char* const*>(line),
                    const_cast<char* const*>(variables.data()));
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw problem(EX_OSERR, "cannot run --pipe");
  }
  running_command(const running_command&) = delete;
  running_command& operator=(const running_command&) = delete;
  ~running_command() {
    const clock::time_point end = clock::now() + std::chrono::milliseconds(500);
    if (is_running()) kill(-m_pid, SIGTERM);
    while (is_running()) {
      if (clock::now() > end) kill(-m_pid, SIGKILL);
      pause();
    }
  }

  // What it ended with, as waitpid has it.
  int wait() {
    const clock::time_point end = clock::now() + std::chrono::seconds(kProgramPatience);
    while (is_running()) {
      interrupt_guard::check();
      if (clock::now() > end) {
        throw not_taken(EX_TEMPFAIL, "--pipe did not end within 10 minutes");
      }
      pause();
    }
    return m_status;
  }

 private:
  static void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }

  bool is_running() {
    if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) != 0) m_pid = 0;
    return m_pid > 0;
  }

  pid_t m_pid = 0;
  int m_status = -1;
};

// The command is run when the mail is whole: of one that breaks off it sees nothing.
class mail_pipe : public mail_store {
 public:
  mail_pipe(const std::string& command, bool is_quiet) : m_command(command), m_quiet(is_quiet) {}

  void begin(const std::string&) override {
    m_file.reset();
    m_file.emplace("", spool_file::nameless());
  }
  void write(std::string_view text) override { m_file->write(text); }
  void abandon() override { m_file.reset(); }

  std::string finish(const raw_header&) override {
    const int status = running_command(m_command, m_file->rewind(), m_quiet).wait();
    abandon();
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    if (code == kNotFound || code == kNotExecutable) {
      throw problem(EX_OSERR, "--pipe cannot be run; try it by itself");
    }
    const std::string how = WIFEXITED(status) ? "exit code " + std::to_string(code)
                                              : "signal " + std::to_string(WTERMSIG(status));
    throw not_taken(EX_TEMPFAIL, "--pipe failed with " + how);
  }

 private:
  const std::string m_command;
  const bool m_quiet;
  std::optional<spool_file> m_file;
};

}  // namespace

std::unique_ptr<mail_store> make_mail_pipe(const std::string& command, bool is_quiet) {
  return std::make_unique<mail_pipe>(command, is_quiet);
}

}  // namespace tavmail
