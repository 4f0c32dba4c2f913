#include "maildir.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>

#include "md5.h"
#include "text.h"

namespace mailhost {
namespace {

constexpr size_t longest_uid = 70;  // RFC 1939, section 7

// The name without the flags that a mail reader adds to it.
std::string uid_of(const std::string& name) {
  const std::string base = name.substr(0, name.find(':'));
  const bool is_fit =
      base.size() <= longest_uid && base == printable(base) && base.find(' ') == std::string::npos;
  return is_fit ? base : hex(md5(base));
}

}  // namespace

std::optional<std::string> read_file(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  if (!file.is_open() || file.bad()) return std::nullopt;
  return bytes.str();
}

bool write_file(const std::filesystem::path& path, const std::string& bytes, mode_t mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(fdopen(fd, "w"), std::fclose);
  if (!file) return false;
  const size_t written = std::fwrite(bytes.data(), 1, bytes.size(), file.get());
  return written == bytes.size() && std::fflush(file.get()) == 0;
}

maildir::maildir(const std::filesystem::path& folder) : m_folder(folder) {
  for (const char* part : {"tmp", "new", "cur"}) std::filesystem::create_directories(folder / part);
}

// The names rise with the time, so that a list by name is one by age.
std::optional<std::string> maildir::keep(const mail& message) {
  if (message.data.size() > m_room) return std::nullopt;
  char name[80];
  std::snprintf(name, sizeof name, "%010lld.M%06zuP%ld.localhost",
                static_cast<long long>(std::time(nullptr)), ++m_count, static_cast<long>(getpid()));
  const std::filesystem::path whole = m_folder / "new" / name;
  std::error_code problem;
  if (write_file(m_folder / "tmp" / name, message.data, 0600))
    std::filesystem::rename(m_folder / "tmp" / name, whole, problem);
  else
    problem = std::make_error_code(std::errc::io_error);
  if (problem) {
    std::filesystem::remove(m_folder / "tmp" / name, problem);
    return std::nullopt;
  }
  m_room -= message.data.size();
  return whole.string();
}

maildir::path_map maildir::files() const {
  path_map found;
  std::error_code problem;
  for (const char* part : {"new", "cur"})
    for (const auto& file : std::filesystem::directory_iterator(m_folder / part, problem))
      if (file.is_regular_file(problem) && file.path().filename().string()[0] != '.')
        found[uid_of(file.path().filename().string())] = file.path();
  return found;
}

std::vector<mail_store::entry> maildir::list() {
  std::vector<entry> entries;
  for (const auto& [uid, path] : files()) {
    const auto known = m_sizes.find(uid);
    if (known != m_sizes.end()) {
      entries.push_back({uid, known->second});
    } else if (const auto bytes = read_file(path)) {
      const size_t size = with_crlf(*bytes).size();
      m_sizes[uid] = size;
      entries.push_back({uid, size});
    }
  }
  return entries;
}

std::optional<std::string> maildir::text(const std::string& uid) {
  const path_map all = files();
  const auto found = all.find(uid);
  const auto bytes = found != all.end() ? read_file(found->second) : std::nullopt;
  if (!bytes) return std::nullopt;
  return with_crlf(*bytes);
}

void maildir::remove(const std::string& uid) {
  const path_map all = files();
  const auto found = all.find(uid);
  if (found == all.end()) return;
  std::error_code problem;
  const uintmax_t size = std::filesystem::file_size(found->second, problem);
  if (!problem && std::filesystem::remove(found->second, problem))
    m_room = std::min(m_room + size, most_bytes);
  m_sizes.erase(uid);
}

}  // namespace mailhost
