// fake_memory.h - the device's memory and mutexes (utl_os.h, and the memory half of osw.h) for
// tests: every block is watched, allocations fail on demand.
//
//   fake_memory memory;
//   memory.fail(3);                    // the third allocation from here
//   EXPECT_EQ(mail.make_header(...), 0);
//   EXPECT_TRUE(memory.clean());
//
// New memory is filled with 0xA5 and freed memory with 0xDD, a reallocated block always moves, and
// both ends of a block are guarded. The watch is always on; a fake_memory object looks at what
// happens from its construction on. One object at a time.

#ifndef TESTS_SUPPORT_FAKE_MEMORY_H
#define TESTS_SUPPORT_FAKE_MEMORY_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tav_test {

class fake_memory {
 public:
  fake_memory();
  ~fake_memory();
  fake_memory(const fake_memory&) = delete;
  fake_memory& operator=(const fake_memory&) = delete;

  // Allocations fail: the nth from this call on (from 1), or that and all later ones. Those of the
  // test's own parts (new_failure_pause) never do and are not counted.
  void fail(size_t nth, bool all_from = false);
  void fail_from(size_t nth) { fail(nth, true); }
  void never_fail();
  // What fails throws instead of giving null, until never_fail(). `thrower` throws it.
  void fail_by(std::function<void()> thrower);
  // True when a failure that was asked for has happened.
  bool failed() const;
  size_t calls() const;  // allocations since the latest of fail and never_fail

  // Bytes allocated and not yet freed, and the most that they were since the construction.
  size_t live_bytes() const;
  size_t peak_bytes() const;

  bool any_mutex_held() const;

  // From here on a block that holds one of these texts when it is freed is a fault.
  static void watch_for(std::vector<std::string> secrets);

  // One line for each overrun, free of something that is not a live block, and misuse of a mutex
  // since the latest object was made or the program began; "" when all is well.
  static std::string faults();
  // None of them, and no leaks. Writes them to the error output otherwise.
  bool clean() const;
};

}  // namespace tav_test

#endif
