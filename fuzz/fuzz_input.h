// fuzz_input.h - what the fuzz targets share: how an input is read, and what must hold afterwards.
//
// An input begins with control bytes, whose meaning each target tells, and goes on with text. "0"
// is the control byte 0, "1" is 1 and so on, so that seeds are written with an editor. Lines end in
// LF; a VT (0x0B) in a line stands for a LF of the value.

#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "fake_memory.h"

// Ends the program where a statement about the library does not hold.
#define REQUIRE(condition)                                                                \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                       \
    }                                                                                     \
  } while (false)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

class input {
 public:
  input(const uint8_t* data, size_t size) : m_pos(data), m_end(data + size) {}

  // The next control byte; 0 when there is none.
  unsigned number() {
    return m_pos != m_end ? *m_pos++ ^ unsigned { '0' } : 0;
  }
  // The text up to the next `end`, which is dropped.
  std::string text(char end = '\n') {
    const uint8_t* const stop = std::find(m_pos, m_end, static_cast<uint8_t>(end));
    const std::string taken(m_pos, stop);
    m_pos = stop + (stop != m_end ? 1 : 0);
    return taken;
  }
  // The same as a value of the application: it ends at a NUL, and a VT stands for LF.
  std::string value() {
    std::string taken = text().c_str();
    std::replace(taken.begin(), taken.end(), '\v', '\n');
    return taken;
  }
  std::string rest() {
    const std::string taken(m_pos, m_end);
    m_pos = m_end;
    return taken;
  }
  size_t size() const { return static_cast<size_t>(m_end - m_pos); }

 private:
  const uint8_t* m_pos;
  const uint8_t* m_end;
};

// One run of a target: `run(in, memory)`. Two control bytes: which allocation fails (0: none), and
// whether all later ones fail with it. The target's own strings, mails and settings may run out of
// memory, too. Nothing may be left at the end.
template <typename Run>
int try_input(const uint8_t* data, size_t size, Run&& run) {
  input in(data, size);
  tav_test::fake_memory memory;
  const unsigned nth = in.number();
  const bool all_from = (in.number() & 1) != 0;
  all_from&& nth != 0 ? memory.fail_from(nth) : memory.fail(nth);
  try {
    run(in, memory);
  } catch (const std::bad_alloc&) {
  }
  REQUIRE(memory.clean());
  return 0;
}

}  // namespace fuzz

#endif
