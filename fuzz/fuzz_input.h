// fuzz_input.h - how the fuzz targets read an input.
//
// An input begins with control bytes, whose meaning each target tells, and goes on with text. "0"
// is the control byte 0, "1" is 1 and so on, so that seeds are written with an editor.

#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstdint>
#include <string>

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

}  // namespace fuzz

#endif
