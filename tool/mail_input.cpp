#include "mail_input.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "problem.h"

namespace tavmail {

namespace {

constexpr size_t kInputPiece = size_t{64} << 10;
constexpr size_t kMostInMemory = size_t{1} << 20;

// A file without a name, which goes with its descriptor.
class temporary_file {
 public:
  temporary_file() {
    std::error_code error;
    std::string path = std::filesystem::temp_directory_path(error).string() + "/tavmail-XXXXXX";
    m_fd = mkostemp(path.data(), O_CLOEXEC);
    if (m_fd < 0) fail();
    unlink(path.c_str());
  }
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;
  ~temporary_file() {
    if (m_fd >= 0) close(m_fd);
  }

  void write(const char* bytes, size_t size) const {
    while (size > 0) {
      const ssize_t count = ::write(m_fd, bytes, size);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) fail();
      bytes += count;
      size -= static_cast<size_t>(count);
    }
  }

  // From its beginning.
  std::unique_ptr<input_file> to_read() {
    if (lseek(m_fd, 0, SEEK_SET) < 0) fail();
    return std::make_unique<input_file>(std::exchange(m_fd, -1), "the temporary file");
  }

 private:
  [[noreturn]] static void fail() {
    throw problem(EX_CANTCREAT, std::string("cannot keep the mail in a temporary file: ") +
                                    std::strerror(errno) + "; make room, or set TMPDIR");
  }

  int m_fd = -1;
};

std::unique_ptr<input_file> opened(const std::string& path, const std::string& what) {
  if (path != "-") return std::make_unique<input_file>(path, what);
  return std::make_unique<input_file>(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3), "standard input");
}

}  // namespace

mail_input::mail_input(const std::string& path, const std::string& what)
    : m_file(opened(path, what)) {
  if (S_ISREG(m_file->status().st_mode)) {
    m_size = static_cast<uint64_t>(m_file->status().st_size);
  } else {
    read_ahead();
  }
}

void mail_input::read_ahead() {
  m_kept = m_file->read_all(kMostInMemory);
  m_size = m_kept.size();
  if (m_size <= kMostInMemory) return;
  temporary_file rest;
  std::string piece(kInputPiece, '\0');
  while (const size_t count = m_file->read(piece.data(), piece.size())) {
    rest.write(piece.data(), count);
    m_size += count;
  }
  m_file = rest.to_read();
}

size_t mail_input::read(char* bytes, size_t size) {
  if (m_at == m_kept.size()) return m_file->read(bytes, size);
  const size_t count = std::min(size, m_kept.size() - m_at);
  std::memcpy(bytes, m_kept.data() + m_at, count);
  m_at += count;
  return count;
}

}  // namespace tavmail
