// Memory that is given back is wiped, so that no copy of a password outlives its owner, whoever
// made it: a text that grew, the reader of the configuration, a stream.

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

void* take(std::size_t size) noexcept { return std::malloc(size > 0 ? size : 1); }

void* take_or_throw(std::size_t size) {
  if (void* const block = take(size)) return block;
  throw std::bad_alloc();
}

void give_back(void* block) noexcept {
  if (block != nullptr) explicit_bzero(block, malloc_usable_size(block));
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) { return take_or_throw(size); }
void* operator new[](std::size_t size) { return take_or_throw(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return take(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return take(size); }
void operator delete(void* block) noexcept { give_back(block); }
void operator delete[](void* block) noexcept { give_back(block); }
void operator delete(void* block, std::size_t) noexcept { give_back(block); }
void operator delete[](void* block, std::size_t) noexcept { give_back(block); }
