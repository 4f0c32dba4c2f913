#include "utl_os.h"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <thread>

// A lock with an owner. The state is guarded by a mutex that is never held across a call, so that
// deleting a held one is harmless.
struct UtlMutex {
  std::mutex guard;
  std::condition_variable released;
  bool is_held = false;
  std::thread::id holder;
};

void* UtlOS::MemAllocate(size_t size) { return std::malloc(size > 0 ? size : 1); }

void* UtlOS::MemReallocate(void* block, size_t size) {
  return std::realloc(block, size > 0 ? size : 1);
}

void UtlOS::MemFree(void* block) noexcept { std::free(block); }

UtlMutex* UtlOS::CreateMutex() noexcept { return new (std::nothrow) UtlMutex; }

int UtlOS::TakeMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return 0;
  std::unique_lock<std::mutex> lock(mutex->guard);
  const std::thread::id self = std::this_thread::get_id();
  mutex->released.wait(lock, [&] { return !mutex->is_held || mutex->holder == self; });
  mutex->is_held = true;
  mutex->holder = self;
  return 1;
}

int UtlOS::GiveMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return 0;
  const std::lock_guard<std::mutex> lock(mutex->guard);
  if (!mutex->is_held || mutex->holder != std::this_thread::get_id()) return 0;
  mutex->is_held = false;
  mutex->released.notify_one();
  return 1;
}

void UtlOS::DeleteMutex(UtlMutex* mutex) noexcept { delete mutex; }
