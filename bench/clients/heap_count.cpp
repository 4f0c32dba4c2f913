// heap_count.cpp - preloaded into a client: counts its allocations and the peak of its heap while
// the task runs and, separately, the calls of the library's allocator.

#include <dlfcn.h>
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

#include "utl_os.h"

extern "C" {
// The C library's own names for the functions replaced here.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<unsigned long long> g_calls;
std::atomic<unsigned long long> g_utl_calls;
std::atomic<long long> g_live;
std::atomic<long long> g_peak;

void* gained(void* block) {
  g_calls.fetch_add(1, std::memory_order_relaxed);
  const auto size = static_cast<long long>(malloc_usable_size(block));
  const long long live = g_live.fetch_add(size, std::memory_order_relaxed) + size;
  if (live > g_peak.load(std::memory_order_relaxed)) g_peak.store(live, std::memory_order_relaxed);
  return block;
}

void lost(void* block) {
  g_live.fetch_sub(static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void* malloc(size_t size) {
  return gained(__libc_malloc(size));
}

__attribute__((visibility("default"))) void* calloc(size_t count, size_t size) {
  return gained(__libc_calloc(count, size));
}

__attribute__((visibility("default"))) void* realloc(void* block, size_t size) {
  lost(block);
  return gained(__libc_realloc(block, size));
}

__attribute__((visibility("default"))) void free(void* block) {
  lost(block);
  __libc_free(block);
}

__attribute__((visibility("default"))) int posix_memalign(void** block, size_t alignment,
                                                          size_t size) {
  *block = gained(__libc_memalign(alignment, size));
  return *block != nullptr ? 0 : ENOMEM;
}

__attribute__((visibility("default"))) void* aligned_alloc(size_t alignment, size_t size) {
  return gained(__libc_memalign(alignment, size));
}

__attribute__((visibility("default"))) void bench_heap_begin() {
  g_calls = 0;
  g_utl_calls = 0;
  g_live = 0;
  g_peak = 0;
}

__attribute__((visibility("default"))) void bench_heap_end(unsigned long long* calls,
                                                           unsigned long long* utl_calls,
                                                           unsigned long long* peak) {
  *calls = g_calls;
  *utl_calls = g_utl_calls;
  *peak = static_cast<unsigned long long>(g_peak);
}

}  // extern "C"

// Replace those of libutlbase: the client's libraries find these first.
void* UtlOS::MemAllocate(size_t size) {
  g_utl_calls.fetch_add(1, std::memory_order_relaxed);
  return malloc(size > 0 ? size : 1);
}

void* UtlOS::MemReallocate(void* block, size_t size) {
  g_utl_calls.fetch_add(1, std::memory_order_relaxed);
  return realloc(block, size > 0 ? size : 1);
}
