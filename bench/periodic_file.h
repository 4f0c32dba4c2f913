// periodic_file.h - the attached file as base64, without holding all of it.
//
// The file repeats its first bytes, so that the side that is not measured works from the
// processor's caches and is never the slower one. The clients do not make use of that.

#ifndef BENCH_PERIODIC_FILE_H
#define BENCH_PERIODIC_FILE_H

#include <cstddef>
#include <string>

namespace bench {

// Whole lines of 64 characters, and of 76.
constexpr size_t kPeriod = 912 * 256;

struct encoded_file {
  std::string block;  // lines of one period
  size_t repeated = 0;
  std::string tail;  // lines of the rest

  size_t size() const { return block.size() * repeated + tail.size(); }

  // Calls `write` with each piece in turn until one fails.
  template <typename Write>
  bool for_each(Write&& write) const {
    for (size_t i = 0; i < repeated; ++i) {
      if (!write(block)) return false;
    }
    return write(tail);
  }
};

// Encodes in lines of `line_bytes` bytes, 48 or 57. Empty when the file cannot be read.
encoded_file encode_periodic_file(const std::string& path, size_t line_bytes);

}  // namespace bench

#endif
