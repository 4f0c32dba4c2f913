// blocks.h - what the examples share: data in and out of a part, and how a failure is told.

#ifndef BLOCKS_H
#define BLOCKS_H

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "quorvelmida/taveml.h"
#include "utl_os.h"

// [give]
// Hands `length` (above 0) bytes to a part. The block has room for the NUL behind the data. Once
// set_buffer has succeeded it belongs to the part.
inline bool give(quorvelmida::tav_eml_mlutl_mail_part& part, const char* bytes, size_t length) {
  void* block = UtlOS::MemAllocate(length + 1);
  if (block == nullptr) return false;
  std::memcpy(block, bytes, length);
  static_cast<char*>(block)[length] = '\0';
  long count = static_cast<long>(length);
  if (part.set_buffer(block, count) != 0) return true;
  UtlOS::MemFree(block);
  return false;
}
// [/give]

// [take]
// Takes everything out of a part. The block belongs to us then.
inline std::string take(quorvelmida::tav_eml_mlutl_mail_part& part) {
  void* block = nullptr;
  long length = 0;  // below 1: all there is
  if (part.get_buffer(block, length) == 0) throw std::bad_alloc();
  if (block == nullptr) return {};  // the part held nothing
  std::string bytes(static_cast<const char*>(block), static_cast<size_t>(length));
  UtlOS::MemFree(block);
  return bytes;
}
// [/take]

// A UtlString is null, which is not "", until it is set.
inline const char* text_of(const UtlString& text) {
  return text.GetString() != nullptr ? text.GetString() : "";
}

// 0 for success, and an exit code with a line that tells the result.
inline int tell(const char* what, quorvelmida::TAV_EML_RESULT result) {
  if (result == quorvelmida::TAV_EML_OK) return 0;
  std::fprintf(stderr, "%s: 0x%08x\n", what, static_cast<unsigned>(result));
  return 1;
}

#endif
