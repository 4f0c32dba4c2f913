#include "disk.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavmail {

bool write_at(int fd, const std::string& bytes, off_t offset) {
  for (size_t at = 0; at < bytes.size();) {
    const ssize_t count =
        pwrite(fd, bytes.data() + at, bytes.size() - at, offset + static_cast<off_t>(at));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += static_cast<size_t>(count);
  }
  return true;
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

bool sync_folder(const std::string& folder) {
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno == EACCES;                      // where names may be made and not read
  const bool is_safe = fsync(fd) == 0 || errno == EINVAL;  // not all file systems can
  const int error = errno;
  close(fd);
  errno = error;
  return is_safe;
}

bool sync_folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return sync_folder(slash == std::string::npos ? "." : path.substr(0, slash + 1));
}

problem cannot(const std::string& what, const std::string& path) {
  return problem(EX_CANTCREAT, "cannot " + what + " " + path + ": " + std::strerror(errno));
}

void require_synced(const std::string& folder) {
  if (!sync_folder(folder)) throw cannot("write", folder);
}

}  // namespace tavmail
