#include <fcntl.h>
#include <lockfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "disk.h"
#include "interrupt.h"
#include "mail_store.h"
#include "spool_file.h"

namespace tavmail {

namespace {

constexpr int kLockPatience = 30;  // seconds that another program may have an mbox

// An mbox that is open and locked while it lives, as Debian's programs do it: with fcntl, and with
// FILE.lock where that can be made.
class locked_mbox {
 public:
  explicit locked_mbox(const std::string& path) : m_path(path), m_lock(path + ".lock") {
    try {
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kLockPatience);
      while (!lock()) {
        interrupt_guard::check();
        if (std::chrono::steady_clock::now() > end) {
          throw problem(EX_TEMPFAIL, "another program keeps " + path + " locked; try again later");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      check();
    } catch (...) {
      unlock();
      throw;
    }
  }
  locked_mbox(const locked_mbox&) = delete;
  locked_mbox& operator=(const locked_mbox&) = delete;
  ~locked_mbox() { unlock(); }

  // Adds a mail with the line that it begins with. Nothing is left of one that cannot be added.
  void add(const std::string& first_line, int mail) {
    const off_t before = m_status.st_size;
    const bool is_added =
        lseek(m_fd, before, SEEK_SET) == before && write_all(m_fd, gap() + first_line) &&
        copy(mail) && write_all(m_fd, "\n") && fsync(m_fd) == 0 && (before > 0 || name_is_safe());
    if (is_added) return;
    const problem trouble = cannot("write", m_path);
    if (ftruncate(m_fd, before) != 0) throw cannot("write", m_path);
    throw problem(trouble);
  }

 private:
  // False when another program has one of the locks: then none is kept, as that program may be
  // waiting for the other one.
  bool lock() {
    m_fd = open(m_path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
    if (m_fd < 0) throw cannot("open", m_path);
    if (lock_bytes() && make_lock_file() && is_in_place()) return true;
    unlock();
    return false;
  }

  bool lock_bytes() const {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(m_fd, F_SETLK, &whole) == 0) return true;
    if (errno != EAGAIN && errno != EACCES) throw cannot("lock", m_path);
    return false;
  }

  bool make_lock_file() {
    const int result = lockfile_create(m_lock.c_str(), 0, L_PID);
    m_hasFile = result == L_SUCCESS;
    // A folder that others own: the other lock has to do.
    const bool is_foreign = errno == EACCES || errno == EROFS || errno == EPERM;
    if (m_hasFile || (result != L_MAXTRYS && is_foreign)) return true;
    if (result != L_MAXTRYS) throw cannot("lock", m_path);
    return false;
  }

  // Whoever had the lock may have put a new file in the place of the one that is open.
  bool is_in_place() const {
    struct stat opened {};
    struct stat named {};
    return fstat(m_fd, &opened) == 0 && stat(m_path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
  }

  void unlock() {
    if (m_hasFile) lockfile_remove(m_lock.c_str());
    if (m_fd >= 0) close(m_fd);  // takes the other lock away
    m_fd = -1;
    m_hasFile = false;
  }

  // An mbox without mail may be new. Some folders can be used and not read.
  bool name_is_safe() const { return sync_folder_of(m_path) || errno == EACCES; }

  void check() {
    char begin[5];
    if (fstat(m_fd, &m_status) != 0) throw cannot("read", m_path);
    const ssize_t count = S_ISREG(m_status.st_mode) ? pread(m_fd, begin, sizeof begin, 0) : -1;
    const bool is_mbox = count == 0 || (count == 5 && std::memcmp(begin, "From ", 5) == 0);
    if (!is_mbox) throw problem(EX_CANTCREAT, m_path + " is no mbox; give another --folder");
  }

  // What is missing of the empty line between two mails.
  std::string gap() const {
    char end[2] = {'\n', '\n'};
    const off_t size = m_status.st_size;
    if (size >= 2 && pread(m_fd, end, 2, size - 2) != 2) return "\n\n";
    return end[1] != '\n' ? "\n\n" : end[0] != '\n' ? "\n" : "";
  }

  bool copy(int mail) const {
    std::vector<char> block(size_t{64} << 10);
    for (ssize_t count = 1; count > 0;) {
      count = read(mail, block.data(), block.size());
      if (count < 0 && errno == EINTR)
        count = 1;
      else if (count < 0 || !write_all(m_fd, {block.data(), static_cast<size_t>(count)}))
        return false;
    }
    return true;
  }

  const std::string m_path;
  const std::string m_lock;
  int m_fd = -1;
  bool m_hasFile = false;
  struct stat m_status {};
};

// Where the server has put the sender of the envelope; a mail can say anything there.
std::string sender_of(const raw_header& header) {
  std::string sender = header.value("return-path").value_or("");
  if (sender.size() > 1 && sender.front() == '<' && sender.back() == '>') {
    sender = sender.substr(1, sender.size() - 2);
  }
  const auto is_odd = [](char ch) { return ch <= ' ' || ch > '~'; };
  const bool is_address =
      !sender.empty() && sender.size() < 256 && std::none_of(sender.begin(), sender.end(), is_odd);
  return is_address ? sender : "MAILER-DAEMON";
}

std::string from_line(const raw_header& header) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char date[64] = "Thu Jan  1 00:00:00 1970";
  if (gmtime_r(&now, &utc) != nullptr)
    std::strftime(date, sizeof date, "%a %b %e %H:%M:%S %Y", &utc);
  return "From " + sender_of(header) + " " + date + "\n";
}

// A mail is added when it is whole: the mbox is locked for no longer than that takes.
class mbox_file : public mail_store {
 public:
  explicit mbox_file(const std::string& path)
      : m_path(path), m_folder(std::filesystem::path(path).parent_path().string()) {
    if (m_folder.empty()) m_folder = ".";
    const locked_mbox usable(path);
  }

  void begin(const std::string&) override {
    abandon();
    m_file.emplace(m_folder, spool_file::nameless());
    m_quote.emplace([this](std::string_view text) { m_file->write(text); });
    m_header.emplace([this](std::string_view text) { m_quote->take(text); });
  }
  void write(std::string_view text) override { m_header->take(text); }
  std::string finish(const raw_header& header) override {
    m_quote->finish();
    const int mail = m_file->rewind();
    locked_mbox(m_path).add(from_line(header), mail);
    abandon();
    return "";
  }
  void abandon() override {
    m_header.reset();
    m_quote.reset();
    m_file.reset();
  }

 private:
  const std::string m_path;
  std::string m_folder;
  std::optional<spool_file> m_file;
  std::optional<from_quote> m_quote;
  std::optional<mbox_header> m_header;
};

}  // namespace

std::unique_ptr<mail_store> make_mbox(const std::string& path) {
  return std::make_unique<mbox_file>(path);
}

}  // namespace tavmail
