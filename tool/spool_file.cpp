#include "spool_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "disk.h"

namespace tavmail {

namespace {

constexpr size_t kSpoolBlock = size_t{64} << 10;

}  // namespace

std::string temporary_folder() {
  const char* folder = std::getenv("TMPDIR");
  return folder != nullptr && *folder == '/' ? folder : "/tmp";
}

spool_file::spool_file(const std::string& folder, const std::string& prefix) {
  if (!make_in(folder, prefix)) throw cannot("make a file in", folder);
}

spool_file::spool_file(const std::string& folder, nameless) {
  constexpr char kPrefix[] = ".tavmail-";
  const std::string otherwise = temporary_folder();
  if ((folder.empty() || !make_in(folder, kPrefix)) && !make_in(otherwise, kPrefix)) {
    throw cannot("make a file in", otherwise);
  }
  unlink(m_path.c_str());
  m_path.clear();
}

spool_file::~spool_file() {
  close(m_fd);
  if (!m_path.empty()) unlink(m_path.c_str());
}

bool spool_file::make_in(const std::string& folder, const std::string& prefix) {
  m_path = folder + "/" + prefix + "XXXXXX";
  m_fd = mkostemp(m_path.data(), O_CLOEXEC);
  return m_fd >= 0;
}

void spool_file::write(std::string_view text) {
  m_buffer += text;
  m_size += text.size();
  if (m_buffer.size() >= kSpoolBlock) flush();
}

void spool_file::flush() {
  if (!write_all(m_fd, m_buffer))
    throw cannot("write", m_path.empty() ? "a temporary file" : m_path);
  m_buffer.clear();
}

void spool_file::sync() {
  flush();
  if (fsync(m_fd) != 0) throw cannot("write", m_path);
}

bool spool_file::move_to(const std::string& path) {
  int result = renameat2(AT_FDCWD, m_path.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE);
  if (result != 0 && (errno == EINVAL || errno == ENOSYS)) {
    // The file system does not know this. Nobody else makes files of these names.
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) return false;
    result = std::rename(m_path.c_str(), path.c_str());
  }
  if (result != 0 && errno == EEXIST) return false;
  if (result != 0) throw cannot("make", path);
  m_path.clear();
  return true;
}

int spool_file::rewind() {
  flush();
  if (lseek(m_fd, 0, SEEK_SET) != 0) throw cannot("read", "what was received");
  return m_fd;
}

}  // namespace tavmail
