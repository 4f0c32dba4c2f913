// interrupt.h - the interrupt key as a question that is asked between two steps.

#ifndef INTERRUPT_H
#define INTERRUPT_H

namespace tavmail {

constexpr int kInterruptedExit = 130;

// Turns the interrupt key into an orderly end while it lives.
class interrupt_guard {
 public:
  interrupt_guard();
  ~interrupt_guard();
  interrupt_guard(const interrupt_guard&) = delete;
  interrupt_guard& operator=(const interrupt_guard&) = delete;

  static bool was_pressed();
};

}  // namespace tavmail

#endif
