// fail_new.h - makes the nth operator new of this thread fail.
//
//   failing_new failure(3);            // armed from here to the end of the scope
//   EXPECT_EQ(object.parse(text), out_of_memory);
//
// Only a program that uses the class gets the replaced operator new. The test's own parts, which
// run below the code under test, keep it away with new_failure_pause.

#ifndef TESTS_SUPPORT_FAIL_NEW_H
#define TESTS_SUPPORT_FAIL_NEW_H

#include <cstddef>

namespace tav_test {

namespace detail {
struct new_failure_state {
  bool armed = false;
  int pauses = 0;
  bool all_from = false;
  size_t failing = 0;
  size_t calls = 0;
  size_t live_bytes = 0;
  size_t peak_bytes = 0;
};
inline thread_local new_failure_state new_failure;
}  // namespace detail

class new_failure_pause {
 public:
  new_failure_pause() { ++detail::new_failure.pauses; }
  ~new_failure_pause() { --detail::new_failure.pauses; }
  new_failure_pause(const new_failure_pause&) = delete;
  new_failure_pause& operator=(const new_failure_pause&) = delete;
};

// The opposite: the code under test, called by a test's own part.
class new_failure_resumed {
 public:
  new_failure_resumed() : m_pauses(detail::new_failure.pauses) { detail::new_failure.pauses = 0; }
  ~new_failure_resumed() { detail::new_failure.pauses = m_pauses; }
  new_failure_resumed(const new_failure_resumed&) = delete;
  new_failure_resumed& operator=(const new_failure_resumed&) = delete;

 private:
  int m_pauses;
};

class failing_new {
 public:
  // `nth` counts from 1; 0 fails none and only counts.
  explicit failing_new(size_t nth, bool all_from = false);
  ~failing_new();
  failing_new(const failing_new&) = delete;
  failing_new& operator=(const failing_new&) = delete;

  // 0 where the program's operator new could not be replaced (clang's sanitizers).
  size_t calls() const { return detail::new_failure.calls; }
  // How much was given away at most since the construction.
  size_t peak_bytes() const { return detail::new_failure.peak_bytes; }
};

}  // namespace tav_test

#endif
