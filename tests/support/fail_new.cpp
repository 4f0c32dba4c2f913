#include "fail_new.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace tav_test {
namespace {

bool fails_now() {
  detail::new_failure_state& state = detail::new_failure;
  if (!state.armed || state.pauses > 0) return false;
  ++state.calls;
  if (state.failing == 0) return false;
  return state.all_from ? state.calls >= state.failing : state.calls == state.failing;
}

// What is freed may have been allocated before anybody counted.
void measure(void* block, bool is_new) {
  detail::new_failure_state& state = detail::new_failure;
  if (!state.armed || state.pauses > 0 || block == nullptr) return;
  const size_t size = malloc_usable_size(block);
  state.live_bytes =
      is_new ? state.live_bytes + size : state.live_bytes - std::min(size, state.live_bytes);
  state.peak_bytes = std::max(state.peak_bytes, state.live_bytes);
}

void* allocate(size_t size) noexcept {
  if (fails_now()) return nullptr;
  void* const block = std::malloc(size != 0 ? size : 1);
  measure(block, true);
  return block;
}

void release(void* block) noexcept {
  measure(block, false);
  std::free(block);
}

void* allocate_or_throw(size_t size) {
  void* const block = allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

failing_new::failing_new(size_t nth, bool all_from) {
  detail::new_failure = {};
  detail::new_failure.all_from = all_from;
  detail::new_failure.failing = nth;
  detail::new_failure.armed = true;
}

failing_new::~failing_new() { detail::new_failure.armed = false; }

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
