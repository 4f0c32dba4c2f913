// values.h - memory blocks of the library as strings of the tests, and back.

#ifndef TESTS_SUPPORT_VALUES_H
#define TESTS_SUPPORT_VALUES_H

#include <cstring>
#include <string>

#include "quorvelmida/taveml_easy.h"
#include "utl_os.h"

namespace tav_test {

using quorvelmida::easy::text_of;

inline long size_of(const std::string& text) { return static_cast<long>(text.size()); }

// A block that holds the bytes and a NUL; null when there is no memory.
inline void* block_of(const std::string& bytes) {
  void* const block = UtlOS::MemAllocate(bytes.size() + 1);
  if (block != nullptr) std::memcpy(block, bytes.c_str(), bytes.size() + 1);
  return block;
}

// What a block holds; frees it.
inline std::string taken(void* block, long length) {
  const std::string bytes(static_cast<const char*>(block), static_cast<size_t>(length));
  UtlOS::MemFree(block);
  return bytes;
}

inline void give(quorvelmida::tav_eml_mlutl_mail_part& part, const std::string& bytes) {
  quorvelmida::easy::give(part, bytes.data(), bytes.size());
}

// What a call hands out; "(failed)" when it failed and left null and 0, as it should.
template <typename Pointer = char*, typename Call>
std::string result_of(Call&& call) {
  static char garbage;
  Pointer out = &garbage;
  long length = 77;
  try {
    if (call(out, length) != 0) return taken(out, length);
  } catch (quorvelmida::tav_eml_mlutl_mail_exception* thrown) {
    delete thrown;
    return "(failed, and threw)";
  }
  return out == nullptr && length == 0 ? "(failed)" : "(failed, and left something)";
}

}  // namespace tav_test

#endif
