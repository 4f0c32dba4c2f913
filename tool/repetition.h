// repetition.h - what has to be kept so that a run can be repeated (--retry).

#ifndef REPETITION_H
#define REPETITION_H

#include <sys/stat.h>
#include <sys/types.h>

namespace tavmail {

// The run that is going on. What it reads from the standard input is kept for the next one; what it
// reads from another pipe is gone, and the run cannot be repeated.
class repetition {
 public:
  // Forgets what was read from a pipe for the previous account. What could not be kept stays lost.
  static void begin_account();
  // `retries` is read later: it may be filled while the run goes on.
  static void begin(const int* retries);
  static bool is_wanted();
  static bool is_possible();
  static void rule_out();

  static bool is_standard_input(const struct stat& file);
  // What an earlier run has read of it. 0: nothing more; -1: it fails.
  static ssize_t replay(char* bytes, size_t size, off_t from);
  static void keep(const char* bytes, size_t size, off_t at);
};

}  // namespace tavmail

#endif
