// tavmail - the command line of libtaveml.

#include <fcntl.h>
#include <sysexits.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "interrupt.h"
#include "series.h"

namespace {

// A caller may have closed the standard streams, and the next file that is opened would be taken
// for one of them. What stands there now can be neither read nor written in that direction.
void open_standard_streams() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace

int main(int argc, char** argv) {
  open_standard_streams();
  std::vector<char*> words(argv, argv + argc + 1);  // with the null at the end
  static char sendmail[] = "sendmail";
  // Called through a link, as programs call it that know nothing of tavmail.
  if (argc > 0 && std::filesystem::path(argv[0]).filename() == sendmail) {
    words.insert(words.begin() + 1, sendmail);
  }
  // For the width of characters on a terminal.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  // A file that may not grow is an error like any other.
  std::signal(SIGXFSZ, SIG_IGN);
  // Whoever ignores it is not told how a command ended.
  std::signal(SIGCHLD, SIG_DFL);
  try {
    const tavmail::interrupt_guard guard;
    return tavmail::run_series(static_cast<int>(words.size()) - 1, words.data(),
                               "tavmail " TAVEML_VERSION);
  } catch (...) {
    // Not even a message could be made.
    std::fputs("tavmail: out of memory\n", stderr);
    return EX_OSERR;
  }
}
