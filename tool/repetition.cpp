#include "repetition.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "spool_file.h"

namespace tavmail {

namespace {

const int* g_retries = nullptr;
bool g_isPossible = true;
bool g_isWhole = true;
int g_kept = -1;  // a file without name
off_t g_size = 0;

void open_kept() {
  g_kept = open(temporary_folder().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
}

}  // namespace

void repetition::begin_account() { g_isPossible = true; }

void repetition::begin(const int* retries) { g_retries = retries; }

bool repetition::is_wanted() { return g_retries != nullptr && *g_retries > 0; }

bool repetition::is_possible() { return is_wanted() && g_isPossible && g_isWhole; }

void repetition::rule_out() { g_isPossible = false; }

bool repetition::is_standard_input(const struct stat& file) {
  struct stat input {};
  return fstat(STDIN_FILENO, &input) == 0 && input.st_dev == file.st_dev &&
         input.st_ino == file.st_ino;
}

ssize_t repetition::replay(char* bytes, size_t size, off_t from) {
  if (from >= g_size) return 0;
  return pread(g_kept, bytes, std::min(size, static_cast<size_t>(g_size - from)), from);
}

void repetition::keep(const char* bytes, size_t size, off_t at) {
  if (!is_possible()) return;
  if (g_kept < 0) open_kept();
  const ssize_t count = pwrite(g_kept, bytes, size, at);
  if (count != static_cast<ssize_t>(size)) g_isWhole = false;
  if (count > 0) g_size = std::max(g_size, at + static_cast<off_t>(count));
}

}  // namespace tavmail
