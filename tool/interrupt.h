// interrupt.h - the interrupt key as a question that is asked between two steps.

#ifndef INTERRUPT_H
#define INTERRUPT_H

namespace tavmail {

// Turns the interrupt key, and requests to end, into an orderly end while it lives. The second one
// ends the process at once.
class interrupt_guard {
 public:
  interrupt_guard();
  ~interrupt_guard();
  interrupt_guard(const interrupt_guard&) = delete;
  interrupt_guard& operator=(const interrupt_guard&) = delete;

  static bool was_pressed();
  static int exit_code();  // as shells have it: 130 for the interrupt key
};

}  // namespace tavmail

#endif
