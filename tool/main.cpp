// tavmail - the command line of libtaveml.

#include <sysexits.h>

#include <clocale>
#include <csignal>
#include <cstdio>

#include "interrupt.h"
#include "series.h"

int main(int argc, char** argv) {
  // For the width of characters on a terminal.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  // A file that may not grow is an error like any other.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    const tavmail::interrupt_guard guard;
    return tavmail::run_series(argc, argv, "tavmail " TAVEML_VERSION);
  } catch (...) {
    // Not even a message could be made.
    std::fputs("tavmail: out of memory\n", stderr);
    return EX_OSERR;
  }
}
