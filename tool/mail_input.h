// mail_input.h - a mail that is ready, from a file or from the program before a pipe.

#ifndef MAIL_INPUT_H
#define MAIL_INPUT_H

#include <cstdint>
#include <memory>
#include <string>

#include "input_file.h"

namespace tavmail {

// Whoever writes to a pipe may take hours, as a cron job does, and no server waits that long: what
// comes from a pipe is read to its end first, in a temporary file where it is long.
class mail_input {
 public:
  // "-" is the standard input. All throw a problem.
  mail_input(const std::string& path, const std::string& what);

  // 0 when that is not known.
  uint64_t size() const { return m_size; }
  // 0 at the end.
  size_t read(char* bytes, size_t size);

 private:
  void read_ahead();

  std::unique_ptr<input_file> m_file;  // null when all of it was read ahead
  std::string m_kept;                  // what was read ahead, before what the file has
  size_t m_at = 0;
  uint64_t m_size = 0;
};

}  // namespace tavmail

#endif
