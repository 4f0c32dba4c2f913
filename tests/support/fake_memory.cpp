#include "fake_memory.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "fail_new.h"
#include "osw.h"
#include "utl_os.h"

struct UtlMutex {
  std::condition_variable freed;
  std::thread::id holder;
  bool held = false;
  size_t waiters = 0;
  size_t serial = 0;
};

namespace tav_test {
namespace {

constexpr unsigned char new_byte = 0xA5;
constexpr unsigned char freed_byte = 0xDD;
constexpr unsigned char guard_byte = 0xFB;
constexpr size_t guard_size = alignof(std::max_align_t) * 2;  // keeps the block aligned
// No device grants more. A sanitizer would stop the program at a wild size instead of refusing it.
constexpr size_t largest_block = size_t{1} << 30;
// A test that would hang in TakeMutex fails instead.
constexpr std::chrono::seconds longest_wait{20};

struct block_info {
  size_t size;
  size_t serial;
};

// What is known about memory and mutexes. Never destroyed, because blocks of static objects are
// freed after main.
struct memory_state {
  std::mutex lock;
  std::unordered_map<void*, block_info> blocks;
  std::vector<UtlMutex*> mutexes;
  std::vector<std::string> faults;
  size_t serial = 0;
  size_t first_serial = 0;  // blocks before it are not this test's
  size_t live_bytes = 0;    // of the others
  size_t peak_bytes = 0;
  size_t calls = 0;
  size_t failing = 0;
  bool all_from = false;
  bool failed = false;
  bool is_tests_own = false;  // the present call is a part of the test, which never fails
  std::function<void()> thrower;
};

memory_state& state() {
  static memory_state& instance = *new memory_state;
  return instance;
}

// Entry of every call: one thread at a time, and no failing operator new below the code under test.
class entry {
 public:
  entry() : m_lock(state().lock) { state().is_tests_own = m_isTestsOwn; }
  std::unique_lock<std::mutex>& lock() { return m_lock; }

 private:
  const bool m_isTestsOwn = detail::new_failure.pauses > 0;
  new_failure_pause m_pause;
  std::unique_lock<std::mutex> m_lock;
};

std::string describe(const block_info& block) {
  return "block " + std::to_string(block.serial) + " of " + std::to_string(block.size) + " bytes";
}

unsigned char* start_of(void* block) { return static_cast<unsigned char*>(block) - guard_size; }

bool fails_now(memory_state& memory) {
  if (memory.is_tests_own) return false;
  ++memory.calls;
  if (memory.failing == 0) return false;
  const bool fails =
      memory.all_from ? memory.calls >= memory.failing : memory.calls == memory.failing;
  memory.failed = memory.failed || fails;
  return fails;
}

void* new_block(memory_state& memory, size_t size) {
  if (size > largest_block) return nullptr;
  auto* const start = static_cast<unsigned char*>(std::malloc(size + 2 * guard_size));
  if (start == nullptr) return nullptr;
  std::memset(start, guard_byte, guard_size);
  std::memset(start + guard_size, new_byte, size);
  std::memset(start + guard_size + size, guard_byte, guard_size);
  memory.blocks[start + guard_size] = {size, ++memory.serial};
  memory.live_bytes += size;
  memory.peak_bytes = std::max(memory.peak_bytes, memory.live_bytes);
  return start + guard_size;
}

void* allocate(memory_state& memory, size_t size) {
  if (fails_now(memory)) {
    if (memory.thrower) memory.thrower();
    return nullptr;
  }
  return new_block(memory, size);
}

bool intact(const unsigned char* guard) {
  return std::all_of(guard, guard + guard_size, [](unsigned char c) { return c == guard_byte; });
}

void release(memory_state& memory, void* block) {
  if (block == nullptr) return;
  const auto found = memory.blocks.find(block);
  if (found == memory.blocks.end()) {
    memory.faults.push_back("free of something that is not a live block");
    return;
  }
  const block_info info = found->second;
  unsigned char* const start = start_of(block);
  if (!intact(start)) memory.faults.push_back("underrun of " + describe(info));
  if (!intact(start + guard_size + info.size))
    memory.faults.push_back("overrun of " + describe(info));
  if (info.serial >= memory.first_serial) memory.live_bytes -= info.size;
  std::memset(start, freed_byte, info.size + 2 * guard_size);
  memory.blocks.erase(found);
  std::free(start);
}

void* reallocate(memory_state& memory, void* block, size_t size) {
  if (block == nullptr) return allocate(memory, size);
  const auto found = memory.blocks.find(block);
  if (found == memory.blocks.end()) {
    memory.faults.push_back("reallocation of something that is not a live block");
    return nullptr;
  }
  const size_t old_size = found->second.size;
  void* const moved = allocate(memory, size);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, block, std::min(old_size, size));
  release(memory, block);
  return moved;
}

void script(size_t nth, bool all_from) {
  entry guard;
  state().calls = 0;
  state().failing = nth;
  state().all_from = all_from;
  state().failed = false;
}

}  // namespace

fake_memory::fake_memory() {
  script(0, false);
  entry guard;
  state().faults.clear();
  state().first_serial = state().serial + 1;
  state().live_bytes = 0;
  state().peak_bytes = 0;
}

fake_memory::~fake_memory() {
  script(0, false);
  fail_by(nullptr);
}

void fake_memory::fail(size_t nth) { script(nth, false); }
void fake_memory::fail_from(size_t nth) { script(nth, true); }
void fake_memory::never_fail() { script(0, false); }

void fake_memory::fail_by(std::function<void()> thrower) {
  entry guard;
  state().thrower = std::move(thrower);
}

bool fake_memory::failed() const {
  entry guard;
  return state().failed;
}

size_t fake_memory::calls() const {
  entry guard;
  return state().calls;
}

size_t fake_memory::live_bytes() const {
  entry guard;
  return state().live_bytes;
}

size_t fake_memory::peak_bytes() const {
  entry guard;
  return state().peak_bytes;
}

bool fake_memory::any_mutex_held() const {
  entry guard;
  const auto& all = state().mutexes;
  return std::any_of(all.begin(), all.end(), [](const UtlMutex* mutex) { return mutex->held; });
}

std::string fake_memory::problems() const {
  entry guard;
  const memory_state& memory = state();
  std::vector<std::string> lines = memory.faults;
  for (const auto& [block, info] : memory.blocks) {
    if (info.serial < memory.first_serial) continue;
    lines.push_back("leak of " + describe(info));
    if (!intact(start_of(block) + guard_size + info.size))
      lines.push_back("overrun of " + describe(info));
  }
  for (const UtlMutex* mutex : memory.mutexes)
    if (mutex->serial >= memory.first_serial) lines.push_back("leak of a mutex");
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

std::string fake_memory::faults() {
  entry guard;
  std::string text;
  for (const std::string& line : state().faults) text += line + "\n";
  return text;
}

bool fake_memory::clean() const {
  const std::string found = problems();
  std::cerr << found;
  return found.empty();
}

}  // namespace tav_test

using tav_test::entry;
using tav_test::state;

void* UtlOS::MemAllocate(size_t size) {
  entry guard;
  return tav_test::allocate(state(), size);
}

void* UtlOS::MemReallocate(void* block, size_t size) {
  entry guard;
  return tav_test::reallocate(state(), block, size);
}

void UtlOS::MemFree(void* block) noexcept {
  entry guard;
  tav_test::release(state(), block);
}

UtlMutex* UtlOS::CreateMutex() noexcept {
  entry guard;
  if (tav_test::fails_now(state())) return nullptr;
  auto mutex = std::make_unique<UtlMutex>();
  mutex->serial = ++state().serial;
  state().mutexes.push_back(mutex.get());
  return mutex.release();
}

int UtlOS::TakeMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return 0;
  entry guard;
  const auto self = std::this_thread::get_id();
  if (!mutex->held || mutex->holder != self) {
    ++mutex->waiters;
    const bool granted = mutex->freed.wait_for(guard.lock(), tav_test::longest_wait,
                                               [mutex] { return !mutex->held; });
    --mutex->waiters;
    if (!granted) {
      state().faults.push_back("a mutex was never given back");
      return 0;
    }
  }
  mutex->held = true;
  mutex->holder = self;
  return 1;
}

int UtlOS::GiveMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return 0;
  entry guard;
  if (!mutex->held || mutex->holder != std::this_thread::get_id()) return 0;
  mutex->held = false;
  mutex->freed.notify_one();
  return 1;
}

void UtlOS::DeleteMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return;
  entry guard;
  auto& mutexes = state().mutexes;
  const auto found = std::find(mutexes.begin(), mutexes.end(), mutex);
  if (found == mutexes.end()) {
    state().faults.push_back("deletion of something that is not a mutex");
    return;
  }
  if (mutex->waiters != 0) {  // deleting it now would crash the threads that wait
    state().faults.push_back("deletion of a mutex that a thread waits for");
    return;
  }
  mutexes.erase(found);
  delete mutex;
}

void* osw_SubAllocMem(size_t size) noexcept {
  entry guard;
  return tav_test::fails_now(state()) ? nullptr : tav_test::new_block(state(), size);
}

void osw_OrgFreeMemPart(int32_t, void* block) noexcept { UtlOS::MemFree(block); }
