// fuzz_input.h - what the fuzz targets share: how an input is read, and what must hold afterwards.
//
// An input begins with control bytes, whose meaning each target tells, and goes on with text. "0"
// is the control byte 0, "1" is 1 and so on, so that seeds are written with an editor. Lines end in
// LF; a VT (0x0B) in a line stands for a LF of the value.

#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <string>

#include "fake_memory.h"
#include "utl_os.h"
#include "utl_string.h"

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
    const void* const found = std::memchr(m_pos, end, static_cast<size_t>(m_end - m_pos));
    const uint8_t* const stop = found ? static_cast<const uint8_t*>(found) : m_end;
    std::string taken(m_pos, stop);
    m_pos = found ? stop + 1 : stop;
    return taken;
  }
  // The same as a value of the application: it ends at a NUL, and a VT stands for LF.
  std::string value() {
    std::string taken = text();
    taken.resize(std::strlen(taken.c_str()));
    for (char& ch : taken)
      if (ch == '\v') ch = '\n';
    return taken;
  }
  std::string rest() {
    std::string taken(m_pos, m_end);
    m_pos = m_end;
    return taken;
  }
  size_t size() const { return static_cast<size_t>(m_end - m_pos); }

 private:
  const uint8_t* m_pos;
  const uint8_t* m_end;
};

// The device's memory during one run. Two control bytes: which allocation fails (0: none), and
// whether all later ones fail with it. Nothing may be left at the end.
class memory_run {
 public:
  explicit memory_run(input& in) {
    const unsigned nth = in.number();
    const bool all_from = (in.number() & 1) != 0;
    if (all_from && nth != 0)
      memory.fail_from(nth);
    else
      memory.fail(nth);
  }
  ~memory_run() { REQUIRE(memory.clean()); }

  tav_test::fake_memory memory;
};

// One run of a target: `run(in, memory)`. The target's own strings, mails and settings may run out
// of memory, too.
template <typename Run>
int try_input(const uint8_t* data, size_t size, Run&& run) {
  input in(data, size);
  memory_run device(in);
  try {
    run(in, device.memory);
  } catch (const std::bad_alloc&) {
  }
  return 0;
}

// Bytes without a NUL behind them, in a block of their own, so that a read past them is seen.
class exact_bytes {
 public:
  explicit exact_bytes(const std::string& bytes)
      : m_data(new char[bytes.size()]), m_size(bytes.size()) {
    std::memcpy(m_data.get(), bytes.data(), bytes.size());
  }
  const char* data() const { return m_data.get(); }
  char* data() { return m_data.get(); }
  long size() const { return static_cast<long>(m_size); }

 private:
  std::unique_ptr<char[]> m_data;
  size_t m_size;
};

// A UtlOS block that an operation hands out. It holds garbage before.
template <typename Pointer>
struct output {
  output() = default;
  output(const output&) = delete;
  output& operator=(const output&) = delete;
  ~output() { UtlOS::MemFree(data); }

  // A success has text and a NUL behind it, a failure null and 0. Gives back whether it succeeded.
  bool check(bool succeeded) {
    if (!succeeded) {
      REQUIRE(data == nullptr && length == 0);
      return false;
    }
    REQUIRE(data != nullptr && length >= 0);
    REQUIRE(static_cast<const char*>(data)[length] == '\0');
    return true;
  }
  std::string bytes() const {
    return {static_cast<const char*>(data), static_cast<size_t>(length)};
  }

  static inline char garbage = 0;
  Pointer data = &garbage;
  long length = -77;
};

// One of the values, by a control byte.
template <typename Value, size_t Count>
const Value& pick(input& in, const Value (&values)[Count]) {
  return values[in.number() % Count];
}

inline std::string text_of(const UtlString& text) {
  REQUIRE(text.GetString() != nullptr || text.GetLength() == 0);
  if (text.GetString() == nullptr) return "";
  REQUIRE(std::strlen(text.GetString()) == text.GetLength());
  return text.GetString();
}

}  // namespace fuzz

#endif
