#include <cstdlib>
#include <new>

#include "fake_memory.h"

namespace tav_test {
namespace {

struct counted : allocations {
  bool is_armed = false;
};
thread_local counted state_of_new;

bool is_counted() { return state_of_new.is_armed && new_failure_pauses == 0; }

void* allocate(size_t size) noexcept {
  if (!is_counted()) return std::malloc(size != 0 ? size : 1);
  return state_of_new.fails_now() ? nullptr : state_of_new.give(size);
}

void* allocate_or_throw(size_t size) {
  void* const block = allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void release(void* block) noexcept {
  is_counted() ? state_of_new.take_back(block) : std::free(block);
}

}  // namespace

failing_new::failing_new(size_t nth, bool all_from) {
  state_of_new = {};
  state_of_new.failing = nth;
  state_of_new.all_from = all_from;
  state_of_new.is_armed = true;
}

failing_new::~failing_new() { state_of_new.is_armed = false; }
const allocations& failing_new::state() const { return state_of_new; }

}  // namespace tav_test

// Weak, because the sanitizers of clang bring operators of their own and would clash with these.
#define REPLACED __attribute__((weak))

REPLACED void* operator new(size_t size) { return tav_test::allocate_or_throw(size); }
REPLACED void* operator new[](size_t size) { return tav_test::allocate_or_throw(size); }
REPLACED void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return tav_test::allocate(size);
}
REPLACED void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return tav_test::allocate(size);
}
REPLACED void operator delete(void* block) noexcept { tav_test::release(block); }
REPLACED void operator delete[](void* block) noexcept { tav_test::release(block); }
REPLACED void operator delete(void* block, size_t) noexcept { tav_test::release(block); }
REPLACED void operator delete[](void* block, size_t) noexcept { tav_test::release(block); }
REPLACED void operator delete(void* block, const std::nothrow_t&) noexcept {
  tav_test::release(block);
}
REPLACED void operator delete[](void* block, const std::nothrow_t&) noexcept {
  tav_test::release(block);
}
