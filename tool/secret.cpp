#include "secret.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "problem.h"

namespace tavmail {

namespace {

constexpr size_t kLongestPassword = 1024;

struct file_closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

// What editors put in front of a text would be part of the password.
void refuse_byte_order_mark(const std::string& text, const std::string& source) {
  for (const char* mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
    if (text.rfind(mark, 0) != 0) continue;
    throw problem(EX_CONFIG, source +
                                 " begins with a byte order mark, which is not of the "
                                 "password; save it as UTF-8 without one");
  }
}

// The first line, without its end.
secret_text read_line(std::FILE* file, const std::string& source) {
  char line[kLongestPassword + 2] = "";
  const bool is_read = std::fgets(line, sizeof line, file) != nullptr;
  std::string text(line, std::strcspn(line, "\r\n"));
  explicit_bzero(line, sizeof line);
  if (!is_read || text.empty()) throw problem(EX_CONFIG, source + " holds no password");
  if (text.size() > kLongestPassword) throw problem(EX_CONFIG, source + ": password too long");
  refuse_byte_order_mark(text, source);
  return secret_text(std::move(text));
}

secret_text from_file(const std::string& path) {
  const file_ptr file(std::fopen(path.c_str(), "re"));
  if (!file) {
    throw problem(EX_NOINPUT, "cannot read --password-file " + path + "; check path and rights");
  }
  struct stat status;
  if (fstat(fileno(file.get()), &status) == 0 && S_ISREG(status.st_mode) &&
      (status.st_mode & 077) != 0) {
    throw problem(EX_CONFIG, "others can read --password-file " + path + "; chmod 600 it first");
  }
  return read_line(file.get(), "--password-file " + path);
}

struct pipe_closer {
  void operator()(std::FILE* pipe) const { pclose(pipe); }
};

secret_text from_command(const std::string& command) {
  std::unique_ptr<std::FILE, pipe_closer> pipe(popen(command.c_str(), "re"));
  if (!pipe) throw problem(EX_OSERR, "cannot run --password-command");
  std::optional<secret_text> text;
  std::optional<problem> trouble;
  try {
    text.emplace(read_line(pipe.get(), "the output of --password-command"));
  } catch (const problem& cause) {
    trouble = cause;
  }
  // What else it prints is read too: it must not fail for want of a reader.
  char rest[256];
  while (std::fgets(rest, sizeof rest, pipe.get()) != nullptr) {
  }
  // A command that fails prints no password as a rule.
  if (pclose(pipe.release()) != 0) {
    throw problem(EX_CONFIG, "--password-command failed; try it by itself");
  }
  if (trouble) throw *trouble;
  return std::move(*text);
}

// Switches the terminal's echo off while it lives. The interrupt key ends the reading, so that the
// echo comes back.
class silent_terminal {
 public:
  explicit silent_terminal(int fd) : m_nFd(fd) {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt, &m_cMask);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGINT, &action, &m_cInterrupt);
    m_bSet = tcgetattr(fd, &m_cBefore) == 0;
    termios silent = m_cBefore;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    if (m_bSet) tcsetattr(fd, TCSAFLUSH, &silent);
  }
  ~silent_terminal() {
    if (m_bSet) tcsetattr(m_nFd, TCSAFLUSH, &m_cBefore);
    dprintf(m_nFd, "\n");  // the line end that was typed did not show
    sigprocmask(SIG_SETMASK, &m_cMask, nullptr);
    sigaction(SIGINT, &m_cInterrupt, nullptr);
  }
  silent_terminal(const silent_terminal&) = delete;
  silent_terminal& operator=(const silent_terminal&) = delete;

  // Waits for a line. The interrupt key has no effect elsewhere, so that none is missed.
  void wait() const {
    pollfd line = {m_nFd, POLLIN, 0};
    if (ppoll(&line, 1, nullptr, &m_cMask) < 0) throw problem(128 + SIGINT, "interrupted");
  }

 private:
  int m_nFd;
  bool m_bSet;
  sigset_t m_cMask;
  termios m_cBefore{};
  struct sigaction m_cInterrupt {};
};

secret_text from_terminal(const std::string& user, const std::string& server) {
  const file_ptr terminal(std::fopen("/dev/tty", "r+e"));
  if (!terminal) {
    throw problem(EX_USAGE, "no terminal to ask for the password; use --password-file or -command");
  }
  const silent_terminal silence(fileno(terminal.get()));
  std::fprintf(terminal.get(), "Password of %s at %s: ", user.c_str(), server.c_str());
  std::fflush(terminal.get());
  silence.wait();
  return read_line(terminal.get(), "what was typed");
}

}  // namespace

secret_text::~secret_text() { explicit_bzero(m_cText.data(), m_cText.size()); }

secret_text read_password(const std::string& file, const std::string& command,
                          const std::string& user, const std::string& server) {
  if (!file.empty()) return from_file(file);
  if (!command.empty()) return from_command(command);
  return from_terminal(user, server);
}

}  // namespace tavmail
