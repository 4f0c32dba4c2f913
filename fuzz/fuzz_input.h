// fuzz_input.h - what the fuzz targets share: how an input is read, and what must hold afterwards.
//
// An input begins with control bytes, whose meaning each target tells, and goes on with text. "0"
// is the control byte 0, "1" is 1 and so on, so that seeds are written with an editor.

#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstdint>
#include <new>
#include <string>

#include "fake_memory.h"

#undef NDEBUG  // what must hold is checked in every build
#include <cassert>

namespace fuzz {

struct input {
  std::string rest;

  // The next control byte; 0 when there is none.
  unsigned number() {
    const char first = rest.empty() ? '0' : rest[0];
    rest.erase(0, 1);
    return static_cast<unsigned char>(first) ^ unsigned { '0' };
  }
};

// One run of a target. Two control bytes: which allocation fails (0: none), and whether all later
// ones fail with it, those of the target's own strings, mails and settings too. Nothing may be left
// at the end.
template <typename Run>
int try_input(input in, Run&& run) {
  tav_test::fake_memory memory;
  const unsigned nth = in.number();
  const bool all_from = (in.number() & 1) != 0;
  all_from&& nth != 0 ? memory.fail_from(nth) : memory.fail(nth);
  try {
    run(in, memory);
  } catch (const std::bad_alloc&) {
  }
  assert(memory.clean());
  return 0;
}

}  // namespace fuzz

#endif
