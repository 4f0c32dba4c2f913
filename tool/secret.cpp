#include "secret.h"

#include <fcntl.h>
#include <paths.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "input_file.h"
#include "interrupt.h"
#include "problem.h"

namespace tavmail {

namespace {

constexpr std::string_view kByteOrderMarks[] = {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"};

// Throws when that is no password.
void check_password(std::string_view text, const std::string& source) {
  const auto refuse = [&](const char* reason) { throw problem(EX_CONFIG, source + reason); };
  if (text.empty()) refuse(" holds no password");
  if (text.size() > secret_text::kLongest) refuse(": password too long");
  for (const std::string_view mark : kByteOrderMarks) {
    if (text.substr(0, mark.size()) != mark) continue;
    refuse(
        " begins with a byte order mark, which is no part of a password; save it as UTF-8 without "
        "one");
  }
  if (text.find('\0') != text.npos) refuse(" holds a zero byte; save it as plain text");
}

// Cuts the text after its first line, without the line's end.
void cut_line(secret_text& text, const std::string& source) {
  const std::string_view room(text.text(), secret_text::kRoom);
  const size_t end = std::min(room.find_last_not_of('\0') + 1, room.find_first_of("\r\n"));
  check_password(room.substr(0, end), source);
  std::fill(text.room() + end, text.room() + room.size(), '\0');
}

// Reads up to the end of a line at least, if there is room.
secret_text read_line(input_file& file) {
  secret_text line;
  constexpr size_t kMost = secret_text::kRoom - 1;
  for (size_t size = 0, got = 1; got > 0 && size < kMost; size += got) {
    got = file.read_some(line.room() + size, kMost - size);
    if (std::memchr(line.room() + size, '\n', got) != nullptr) break;
  }
  return line;
}

secret_text from_file(const std::string& path) {
  const std::string source = "--password-file " + path;
  input_file file(path, "--password-file");
  if (file.is_open_to_others()) {
    throw problem(EX_CONFIG, "others can read " + source + "; chmod 600 it first");
  }
  secret_text text = read_line(file);
  cut_line(text, source);
  return text;
}

// A command of the shell and what it prints. It ends with the run.
class shell_command {
 public:
  explicit shell_command(const std::string& command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail();
    m_output = std::make_unique<input_file>(ends[0], "the output of --password-command");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    const char* const line[] = {"sh", "-c", command.c_str(), nullptr};
    const int error = posix_spawn(&m_pid, _PATH_BSHELL, &actions, nullptr,
                                  const_cast<char* const*>(line), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) fail();
  }
  shell_command(const shell_command&) = delete;
  shell_command& operator=(const shell_command&) = delete;
  ~shell_command() {
    constexpr int kPatience = 100;
    if (is_running()) kill(m_pid, SIGTERM);
    for (int i = 0; is_running(); ++i) {
      if (i == kPatience) kill(m_pid, SIGKILL);
      pause();
    }
  }

  input_file& output() { return *m_output; }

  // Waits for its end. True when it succeeded.
  bool is_successful() {
    while (is_running()) {
      interrupt_guard::check();
      pause();
    }
    return m_status == 0;
  }

 private:
  [[noreturn]] static void fail() { throw problem(EX_OSERR, "cannot run --password-command"); }
  static void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

  bool is_running() {
    if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) != 0) m_pid = 0;
    return m_pid > 0;
  }

  pid_t m_pid = 0;
  int m_status = -1;
  std::unique_ptr<input_file> m_output;
};

secret_text from_command(const std::string& line) {
  shell_command command(line);
  secret_text text = read_line(command.output());
  // What else it prints is read too: it must not fail for want of a reader.
  secret_text rest;
  while (command.output().read_some(rest.room(), secret_text::kRoom) > 0) {
  }
  if (!command.is_successful()) {
    throw problem(EX_CONFIG, "--password-command failed; try it by itself");
  }
  cut_line(text, "the output of --password-command");
  return text;
}

// Holds back, while it lives, the signals that would end or stop the program where it stands. They
// take effect when it goes.
class held_signals {
 public:
  held_signals() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : {SIGQUIT, SIGTSTP}) sigaddset(&held, signal);
    sigprocmask(SIG_BLOCK, &held, &m_before);
    m_fd = signalfd(-1, &held, SFD_CLOEXEC);
  }
  held_signals(const held_signals&) = delete;
  held_signals& operator=(const held_signals&) = delete;
  ~held_signals() {
    close(m_fd);
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
  }

  // Has bytes when one was held back.
  int fd() const { return m_fd; }

 private:
  sigset_t m_before;
  int m_fd;
};

// A question on a terminal whose echo is off while it lives.
class silent_question {
 public:
  silent_question(int fd, const std::string& question) : m_fd(fd) {
    m_set = tcgetattr(fd, &m_before) == 0;
    termios silent = m_before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    if (m_set) tcsetattr(fd, TCSAFLUSH, &silent);
    dprintf(fd, "%s", question.c_str());
  }
  silent_question(const silent_question&) = delete;
  silent_question& operator=(const silent_question&) = delete;
  // What was typed and not read is dropped.
  ~silent_question() {
    if (m_set) tcsetattr(m_fd, TCSAFLUSH, &m_before);
    dprintf(m_fd, "\n");  // the line end that was typed did not show
  }

 private:
  int m_fd;
  bool m_set;
  termios m_before{};
};

secret_text from_terminal(const std::string& user, const std::string& server) {
  const int fd = open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    throw problem(EX_USAGE,
                  "no terminal to ask for the password; use --password-file or "
                  "--password-command");
  }
  input_file terminal(fd, "the terminal");
  secret_text text;
  for (bool is_read = false; !is_read;) {
    // In the background the terminal is set for the shell: wait until it is ours.
    if (tcgetpgrp(fd) != getpgrp()) raise(SIGTTIN);
    const held_signals held;
    const silent_question question(fd, "Password of " + user + " at " + server + ": ");
    is_read = interrupt_guard::await_input(fd, held.fd());
    if (is_read) terminal.read_some(text.room(), secret_text::kRoom - 1);
  }
  cut_line(text, "what was typed");
  return text;
}

}  // namespace

secret_text::secret_text(std::string_view text, const std::string& source) : secret_text() {
  check_password(text, source);
  std::memcpy(room(), text.data(), text.size());
}

void secret_text::wiper::operator()(char* text) const {
  explicit_bzero(text, kRoom);
  delete[] text;
}

secret_text read_password(const std::string& file, const std::string& command,
                          const std::string& user, const std::string& server) {
  if (!file.empty()) return from_file(file);
  if (!command.empty()) return from_command(command);
  return from_terminal(user, server);
}

}  // namespace tavmail
