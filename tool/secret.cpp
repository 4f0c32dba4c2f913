#include "secret.h"

#include <fcntl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

#include "input_file.h"
#include "interrupt.h"
#include "problem.h"
#include "repetition.h"

namespace tavmail {

namespace {

constexpr std::string_view kByteOrderMarks[] = {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"};

struct secret_kind {
  const char* name;
  size_t longest;
};
constexpr secret_kind kPassword = {"password", secret_text::kLongest};
constexpr secret_kind kToken = {"token", secret_text::kLongestToken};

// Throws when that is none.
void check_secret(std::string_view text, const std::string& source, const secret_kind& kind) {
  const auto refuse = [&](const std::string& reason) { throw problem(EX_CONFIG, source + reason); };
  if (text.empty()) refuse(std::string(" holds no ") + kind.name);
  if (text.size() > kind.longest) refuse(std::string(": ") + kind.name + " too long");
  for (const std::string_view mark : kByteOrderMarks) {
    if (text.substr(0, mark.size()) != mark) continue;
    refuse(std::string(" begins with a byte order mark, which is no part of a ") + kind.name +
           "; save it as UTF-8 without one");
  }
  if (text.find('\0') != text.npos) refuse(" holds a zero byte; save it as plain text");
}

void check_token(std::string_view text, const std::string& source) {
  check_secret(text, source, kToken);
  if (std::all_of(text.begin(), text.end(), [](char ch) { return ch > ' ' && ch <= '~'; })) return;
  throw problem(EX_CONFIG, source + " is no token: it has a blank, or a character beyond ASCII");
}

// Cuts the text after its first line, without the line's end.
void cut_line(secret_text& text, const std::string& source, const secret_kind& kind) {
  const std::string_view room(text.text(), text.size());
  const size_t end = std::min(room.find_last_not_of('\0') + 1, room.find_first_of("\r\n"));
  check_secret(room.substr(0, end), source, kind);
  std::fill(text.room() + end, text.room() + room.size(), '\0');
}

// Reads up to the end of a line at least, if there is room.
template <typename Source>
secret_text read_line(Source& source, const secret_kind& kind) {
  secret_text line(kind.longest);
  const size_t most = line.size() - 1;
  for (size_t size = 0, got = 1; got > 0 && size < most; size += got) {
    got = source.read_some(line.room() + size, most - size);
    if (std::memchr(line.room() + size, '\n', got) != nullptr) break;
  }
  return line;
}

secret_text from_file(const std::string& path, const std::string& option) {
  const std::string source = option + " " + path;
  input_file file(path, option);
  if (file.is_open_to_others()) {
    throw problem(EX_CONFIG, "others can read " + source + "; chmod 600 it first");
  }
  secret_text text = read_line(file, kPassword);
  cut_line(text, source, kPassword);
  return text;
}

// The first line of what a command prints.
secret_text from_command(const std::string& line, const shell_command::settings& how,
                         const secret_kind& kind) {
  shell_command command(line, how);
  secret_text text = read_line(command, kind);
  command.finish();
  cut_line(text, "the output of " + how.what, kind);
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
    if (is_read) terminal.read_some(text.room(), text.size() - 1);
  }
  cut_line(text, "what was typed", kPassword);
  return text;
}

}  // namespace

secret_text::secret_text(size_t longest)
    : m_text(new char[longest + kMore](), wiper{longest + kMore}) {}

secret_text::secret_text(std::string_view text, const std::string& source) : secret_text() {
  check_secret(text, source, kPassword);
  std::memcpy(room(), text.data(), text.size());
}

void secret_text::wiper::operator()(char* text) const {
  explicit_bzero(text, size);
  delete[] text;
}

namespace {

// Nobody sits there to type it again for the next try.
secret_text typed(const std::string& user, const std::string& server) {
  if (!repetition::is_wanted()) return from_terminal(user, server);
  static std::map<std::pair<std::string, std::string>, secret_text> known;
  const auto found = known.try_emplace({user, server}).first;
  secret_text& kept = found->second;
  if (*kept.text() == '\0') kept = from_terminal(user, server);
  return secret_text(kept.text(), "what was typed");
}

}  // namespace

secret_text read_password(const std::string& file, const std::string& command,
                          const std::string& user, const std::string& server) {
  if (!file.empty()) return from_file(file, "--password-file");
  if (!command.empty()) {
    shell_command::settings how;
    how.what = "--password-command";
    return from_command(command, how, kPassword);
  }
  return typed(user, server);
}

secret_text read_secret_file(const std::string& path, const std::string& option) {
  return from_file(path, option);
}

secret_text read_token(const std::string& command, const shell_command::settings& how) {
  secret_text token = from_command(command, how, kToken);
  check_token(token.text(), "the output of " + how.what);
  return token;
}

secret_text token_text(std::string_view text, const std::string& source) {
  check_token(text, source);
  secret_text token(secret_text::kLongestToken);
  std::memcpy(token.room(), text.data(), text.size());
  return token;
}

}  // namespace tavmail
