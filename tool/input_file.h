// input_file.h - what is read from files, pipes and the standard input.

#ifndef INPUT_FILE_H
#define INPUT_FILE_H

#include <sys/stat.h>

#include <memory>
#include <string>

namespace tavmail {

// A file that is open for reading and closed when it goes. A pipe may keep the tool waiting, so
// every wait ends with the run.
class input_file {
 public:
  // `what` names it in messages. Throws a problem: it cannot be opened, or is a directory.
  input_file(const std::string& path, const std::string& what);
  // Takes a descriptor over.
  input_file(int fd, const std::string& what);
  ~input_file();
  input_file(const input_file&) = delete;
  input_file& operator=(const input_file&) = delete;

  const struct stat& status() const { return m_status; }
  // True for a file of its own that others may read, or write.
  bool is_open_to_others() const {
    return S_ISREG(m_status.st_mode) && (m_status.st_mode & 077) != 0;
  }

  // Up to `size` bytes as they come; 0 at the end. Throws a problem.
  size_t read_some(char* bytes, size_t size);
  // As many bytes as there are, `size` at most.
  size_t read(char* bytes, size_t size);
  // The rest of it, as far as the first byte beyond `most`.
  std::string read_all(size_t most);

 private:
  [[noreturn]] void fail(int error) const;

  ssize_t next(char* bytes, size_t size);

  const std::string m_what;
  const int m_fd;
  struct stat m_status {};
  bool m_isKept = false;  // for a run that may be repeated
  off_t m_at = 0;
};

// The file, or the standard input for "-". Throws a problem.
std::unique_ptr<input_file> open_input(const std::string& path, const std::string& what);

}  // namespace tavmail

#endif
