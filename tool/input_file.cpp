#include "input_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "interrupt.h"
#include "problem.h"
#include "repetition.h"

namespace tavmail {

// A named pipe is opened without waiting for its other end: the wait comes with the first byte.
input_file::input_file(const std::string& path, const std::string& what)
    : input_file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC), what + " " + path) {
  if (S_ISFIFO(m_status.st_mode) && !m_isKept) repetition::rule_out();
}

input_file::input_file(int fd, const std::string& what) : m_what(what), m_fd(fd) {
  if (fd < 0) fail(errno);
  const int error = fstat(fd, &m_status) != 0 ? errno : S_ISDIR(m_status.st_mode) ? EISDIR : 0;
  if (error != 0) {
    close(fd);
    fail(error);
  }
  m_isKept = repetition::is_wanted() && repetition::is_standard_input(m_status);
}

input_file::~input_file() { close(m_fd); }

void input_file::fail(int error) const {
  throw problem(EX_NOINPUT,
                "cannot read " + m_what + ": " + std::strerror(error) + "; check path and rights");
}

// What a run before has read of the standard input comes first.
ssize_t input_file::next(char* bytes, size_t size) {
  const ssize_t again = m_isKept ? repetition::replay(bytes, size, m_at) : 0;
  if (again == 0) interrupt_guard::await_input(m_fd);
  const ssize_t count = again != 0 ? again : ::read(m_fd, bytes, size);
  if (m_isKept && again == 0 && count > 0) {
    repetition::keep(bytes, static_cast<size_t>(count), m_at);
  }
  if (count > 0) m_at += count;
  return count;
}

size_t input_file::read_some(char* bytes, size_t size) {
  for (;;) {
    const ssize_t count = next(bytes, size);
    if (count >= 0) return static_cast<size_t>(count);
    if (errno != EINTR && errno != EAGAIN) fail(errno);
  }
}

size_t input_file::read(char* bytes, size_t size) {
  size_t count = 0;
  while (count < size) {
    const size_t got = read_some(bytes + count, size - count);
    if (got == 0) break;
    count += got;
  }
  return count;
}

std::string input_file::read_all(size_t most) {
  constexpr size_t kPiece = 65536;
  std::string text;
  size_t got = 1;
  while (got > 0 && text.size() <= most) {
    const size_t size = text.size();
    text.resize(size + std::min(kPiece, most + 1 - size));
    got = read_some(text.data() + size, text.size() - size);
    text.resize(size + got);
  }
  return text;
}

std::unique_ptr<input_file> open_input(const std::string& path, const std::string& what) {
  if (path != "-") return std::make_unique<input_file>(path, what);
  return std::make_unique<input_file>(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3), "standard input");
}

}  // namespace tavmail
