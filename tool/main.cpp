// tavmail - the command line of libtaveml.

#include <fcntl.h>
#include <sysexits.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "interrupt.h"
#include "series.h"

namespace {

// What is opened next would take the place of a standard file that is closed: a message could be
// written to the server. What is opened here fails as a closed file does.
void hold_standard_files() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace

int main(int argc, char** argv) {
  hold_standard_files();
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
  // A program that ignores it may call tavmail, which has to learn how its commands end.
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
