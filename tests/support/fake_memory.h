// fake_memory.h - memory that fails on demand: the device's, with its mutexes (utl_os.h, and the
// memory half of osw.h), and operator new.
//
//   fake_memory memory;
//   memory.fail(3);                    // the third allocation from here
//   EXPECT_EQ(mail.make_header(...), 0);
//   EXPECT_TRUE(memory.clean());
//
//   failing_new failure(3);            // the third operator new of this thread, to the scope's end
//
// The test's own parts, which run below the code under test, keep failures away with
// new_failure_pause. New memory is filled with 0xA5 and a reallocated block always moves; for the
// rest there are the sanitizers.

#ifndef TESTS_SUPPORT_FAKE_MEMORY_H
#define TESTS_SUPPORT_FAKE_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tav_test {

inline thread_local int new_failure_pauses = 0;

class new_failure_pause {
 public:
  new_failure_pause() { ++new_failure_pauses; }
  ~new_failure_pause() { --new_failure_pauses; }
  new_failure_pause(const new_failure_pause&) = delete;
  new_failure_pause& operator=(const new_failure_pause&) = delete;
};

// The opposite: the code under test, called by a test's own part.
class new_failure_resumed {
 public:
  new_failure_resumed() : m_pauses(new_failure_pauses) { new_failure_pauses = 0; }
  ~new_failure_resumed() { new_failure_pauses = m_pauses; }
  new_failure_resumed(const new_failure_resumed&) = delete;
  new_failure_resumed& operator=(const new_failure_resumed&) = delete;

 private:
  int m_pauses;
};

// Which allocations of one kind fail, and what the others took.
struct allocations {
  size_t failing = 0;     // from 1; 0: none
  bool all_from = false;  // and all later ones
  bool failed = false;
  size_t calls = 0;    // the test's own do not count
  int64_t blocks = 0;  // not yet freed
  size_t live_bytes = 0, peak_bytes = 0;
  size_t largest_block = 0;  // as asked for; the test's own do not count

  // Counts a call.
  bool fails_now();
  // Null for more than a device grants; a sanitizer would stop the program instead.
  void* give(size_t size);
  void take_back(void* block);
};

// One object at a time. It counts what happens from its construction on.
class fake_memory {
 public:
  fake_memory();
  ~fake_memory();
  fake_memory(const fake_memory&) = delete;
  fake_memory& operator=(const fake_memory&) = delete;

  // The nth allocation from this call on fails (from 1), or that and all later ones.
  void fail(size_t nth, bool all_from = false);
  void never_fail();
  // What fails throws instead of giving null, until never_fail(). `thrower` throws it.
  void fail_by(std::function<void()> thrower);
  // What happened since the latest of fail and never_fail; bytes and blocks since the construction.
  const allocations& state() const;
  bool any_mutex_held() const;
  // From here on a block that holds one of these texts when it is freed is a fault.
  void watch_for(std::vector<std::string> secrets);
  // No leaks and no faults. Tells of them on the error output otherwise.
  bool clean() const;
};

// Only a program that uses the class gets the replaced operator new.
class failing_new {
 public:
  // `nth` counts from 1; 0 fails none and only counts.
  explicit failing_new(size_t nth, bool all_from = false);
  ~failing_new();
  failing_new(const failing_new&) = delete;
  failing_new& operator=(const failing_new&) = delete;

  // No calls where the program's operator new could not be replaced (clang's sanitizers).
  const allocations& state() const;
};

}  // namespace tav_test

#endif
