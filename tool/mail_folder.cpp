#include "mail_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "disk.h"
#include "problem.h"

namespace tavmail {

namespace {

constexpr int kMostAlike = 10000;  // files of one name in a folder
constexpr char kUnfinishedMail[] = ".part";

// "report.pdf", "report-2.pdf", "report-3.pdf" ...
std::string numbered(const std::string& name, int count) {
  if (count == 1) return name;
  const size_t dot = name.rfind('.');
  const size_t end = dot == std::string::npos || dot == 0 ? name.size() : dot;
  return name.substr(0, end) + "-" + std::to_string(count) + name.substr(end);
}

bool make_empty(const std::string& path) {
  const int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
  return fd >= 0 && close(fd) == 0;
}

}  // namespace

saved_file::saved_file(const std::string& folder, const std::string& name) : m_folder(folder) {
  for (int count = 1; m_fd < 0 && count <= kMostAlike; ++count) {
    m_name = numbered(name, count);
    m_fd = open((folder + "/" + m_name).c_str(),
                O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (m_fd < 0 && errno != EEXIST) break;
  }
  if (m_fd < 0) throw cannot("create", folder + "/" + m_name);
}

saved_file::~saved_file() {
  if (m_fd < 0) return;
  close(m_fd);
  unlink((m_folder + "/" + m_name).c_str());
}

void saved_file::write(const char* bytes, size_t length) {
  m_size += length;
  if (!write_all(m_fd, {bytes, length})) throw cannot("write", m_folder + "/" + m_name);
}

void saved_file::keep() {
  const int fd = m_fd;
  m_fd = -1;
  // A mail may be deleted from the server after this: it must be on the disk.
  const bool is_safe = fsync(fd) == 0;
  if (close(fd) != 0 || !is_safe) throw cannot("write", m_folder + "/" + m_name);
}

void make_folder(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error || !std::filesystem::is_directory(path, error)) {
    throw problem(EX_CANTCREAT, "cannot make --folder " + path + ": " + error.message());
  }
}

int next_mail_number(const std::string& folder) {
  int next = 1;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    const std::string name = entry.path().stem().string();
    if (name.size() >= 4 && name.size() < 9 &&
        std::all_of(name.begin(), name.end(), [](char ch) { return ch >= '0' && ch <= '9'; })) {
      next = std::max(next, std::atoi(name.c_str()) + 1);
    }
  }
  return next;
}

mail_folder::mail_folder(const std::string& path) : m_path(path) {
  make_folder(path);
  m_next = next_mail_number(path);
}

// An empty file in the sub-folder. No part has a name that begins with a dot.
std::string mail_folder::mark_path(const std::string& name, const std::string& mark) const {
  return path_of(name) + "/." + mark;
}

std::string mail_folder::begin_mail(const std::string& mark) {
  for (;; ++m_next) {
    char number[16];
    std::snprintf(number, sizeof number, "%04d", m_next);
    struct stat status;
    const std::string name = std::string(number) + kUnfinishedMail;
    if (mkdir(path_of(name).c_str(), 0700) == 0) {
      // Looked for now that nobody else can finish a mail with this number.
      if (lstat(path_of(number).c_str(), &status) == 0) {
        rmdir(path_of(name).c_str());
        continue;
      }
      ++m_next;
      if (mark.empty() || make_empty(mark_path(name, mark))) return name;
      const problem trouble = cannot("write", path_of(name));
      discard(name);
      throw trouble;
    }
    if (errno != EEXIST) throw cannot("make", path_of(name));
  }
}

std::string mail_folder::finish_mail(const std::string& name, const std::string& mark) const {
  const std::string finished = name.substr(0, name.size() - std::strlen(kUnfinishedMail));
  require_synced(path_of(name));
  if (!mark.empty()) unlink(mark_path(name, mark).c_str());
  if (std::rename(path_of(name).c_str(), path_of(finished).c_str()) != 0) {
    throw cannot("make", path_of(finished));
  }
  require_synced(m_path);
  return finished;
}

void mail_folder::discard_marked(const std::string& mark) const {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(m_path, error)) {
    const std::string name = entry.path().filename().string();
    struct stat status;
    if (entry.path().extension() == kUnfinishedMail && !entry.is_symlink(error) &&
        lstat(mark_path(name, mark).c_str(), &status) == 0) {
      names.push_back(name);
    }
  }
  for (const std::string& name : names) discard(name);
}

void mail_folder::discard(const std::string& name) const {
  std::error_code error;
  std::filesystem::remove_all(path_of(name), error);
}

}  // namespace tavmail
