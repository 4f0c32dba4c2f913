// spool_file.h - a mail on the disk before it is where it belongs.

#ifndef SPOOL_FILE_H
#define SPOOL_FILE_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tavmail {

// A new file that only its owner can read. It is gone with the object, unless it was moved. What is
// here throws a problem.
class spool_file {
 public:
  // In `folder`, with a name that begins with `prefix`.
  spool_file(const std::string& folder, const std::string& prefix);
  // Without a name: in `folder`, or where temporary files go ($TMPDIR) if that is "" or nothing can
  // be made there.
  struct nameless {};
  spool_file(const std::string& folder, nameless);
  spool_file(const spool_file&) = delete;
  spool_file& operator=(const spool_file&) = delete;
  ~spool_file();

  void write(std::string_view text);
  void flush();
  // It is on the disk after this.
  void sync();
  // Gives it another name in the same file system. False when that is taken.
  bool move_to(const std::string& path);
  // Its bytes from the beginning on, to be read.
  int rewind();

  uint64_t size() const { return m_size; }

 private:
  bool make_in(const std::string& folder, const std::string& prefix);

  std::string m_path;  // "" for none
  int m_fd = -1;
  std::string m_buffer;
  uint64_t m_size = 0;
};

// Where files go that nobody is to find: $TMPDIR.
std::string temporary_folder();

}  // namespace tavmail

#endif
