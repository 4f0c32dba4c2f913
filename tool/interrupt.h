// interrupt.h - what ends a run early: the interrupt key, a request to end, --max-time.

#ifndef INTERRUPT_H
#define INTERRUPT_H

#include <chrono>
#include <string>

#include "problem.h"

namespace tavmail {

// Turns each of them into an orderly end while it lives: the wait that is going on is over at once,
// and the command tells how far it came. A second interrupt ends the process as it always does. The
// outermost guard counts.
class interrupt_guard {
 public:
  interrupt_guard();
  ~interrupt_guard();
  interrupt_guard(const interrupt_guard&) = delete;
  interrupt_guard& operator=(const interrupt_guard&) = delete;

  // Ends the run so many seconds after its start.
  static void end_after(int seconds);

  // True when the run is to end, for whatever reason.
  static bool was_pressed();
  // As shells have it: 130 for the interrupt key; EX_TEMPFAIL when the time is over.
  static int exit_code();
  // "interrupted; " or what --max-time says, and what that means for the command.
  static problem cause(const std::string& meaning = "");
  // Throws that when the run is to end.
  static void check(const std::string& meaning = "");

  // False when the run is over before the time is.
  static bool sleep(std::chrono::milliseconds time);

  // Waits until `fd`, or `other` if it is given, has bytes or ended. True when `fd` has. Throws
  // when the run is over before.
  static bool await_input(int fd, int other = -1);
};

}  // namespace tavmail

#endif
