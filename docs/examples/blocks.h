// blocks.h - shared by the examples: data in and out of a part, and reporting a failure.

#ifndef BLOCKS_H
#define BLOCKS_H

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "quorvelmida/taveml.h"
#include "utl_os.h"

// [give]
// Gives `length` (above 0) bytes to a part. The block has room for a NUL after the data. If
// set_buffer succeeds, the part owns it.
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
// Takes all data out of a part. The block is then ours to free.
inline std::string take(quorvelmida::tav_eml_mlutl_mail_part& part) {
  void* block = nullptr;
  long length = 0;  // below 1: all of it
  if (part.get_buffer(block, length) == 0) throw std::bad_alloc();
  if (block == nullptr) return {};  // the part had no data
  std::string bytes(static_cast<const char*>(block), static_cast<size_t>(length));
  UtlOS::MemFree(block);
  return bytes;
}
// [/take]

// A UtlString is null, which is not "", until it is set.
inline const char* text_of(const UtlString& text) {
  return text.GetString() != nullptr ? text.GetString() : "";
}

// 0 for success; otherwise prints the result and returns an exit code.
inline int tell(const char* what, quorvelmida::TAV_EML_RESULT result) {
  if (result == quorvelmida::TAV_EML_OK) return 0;
  std::fprintf(stderr, "%s: 0x%08x\n", what, static_cast<unsigned>(result));
  return 1;
}

#endif
