#include "fake_memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "fail_new.h"
#include "osw.h"
#include "utl_os.h"

struct UtlMutex {
  std::thread::id holder;
  bool held = false;
  size_t serial = 0;
};

namespace tav_test {
namespace {

constexpr unsigned char new_byte = 0xA5, freed_byte = 0xDD, guard_byte = 0xFB;
constexpr size_t guard_size = alignof(std::max_align_t) * 2;  // keeps the block aligned
// No device grants more. A sanitizer would stop the program at a wild size instead of refusing it.
constexpr size_t largest_block = size_t{1} << 30;

struct block_info {
  size_t size, serial;
};

// What is known about memory and mutexes. Never destroyed, because blocks of static objects are
// freed after main.
struct memory_state {
  std::mutex lock;
  std::map<void*, block_info> blocks;
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
  std::function<void()> thrower;
};

memory_state& state() {
  static memory_state& instance = *new memory_state;
  return instance;
}

// Entry of every call: one thread at a time, and no failing operator new below the code under test.
class entry {
 public:
  entry() : m_lock(state().lock) {}
  memory_state* operator->() { return &state(); }

  // A part of the test never fails.
  bool fails_now() {
    if (m_isTestsOwn) return false;
    const size_t call = ++state().calls, failing = state().failing;
    const bool fails = failing != 0 && (state().all_from ? call >= failing : call == failing);
    state().failed = state().failed || fails;
    return fails;
  }

 private:
  const bool m_isTestsOwn = detail::new_failure.pauses > 0;
  new_failure_pause m_pause;
  std::lock_guard<std::mutex> m_lock;
};

std::string describe(const block_info& block) {
  return "block " + std::to_string(block.serial) + " of " + std::to_string(block.size) + " bytes";
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

bool intact(const unsigned char* guard) {
  return std::all_of(guard, guard + guard_size, [](unsigned char c) { return c == guard_byte; });
}

void* new_block(entry& memory, size_t size) {
  if (size > largest_block) return nullptr;
  auto* const start = static_cast<unsigned char*>(std::malloc(size + 2 * guard_size));
  if (start == nullptr) return nullptr;
  std::memset(start, guard_byte, size + 2 * guard_size);
  std::memset(start + guard_size, new_byte, size);
  memory->blocks[start + guard_size] = {size, ++memory->serial};
  memory->live_bytes += size;
  memory->peak_bytes = std::max(memory->peak_bytes, memory->live_bytes);
  return start + guard_size;
}

void* allocate(entry& memory, size_t size) {
  if (!memory.fails_now()) return new_block(memory, size);
  if (memory->thrower) memory->thrower();
  return nullptr;
}

void release(entry& memory, void* block) {
  if (block == nullptr) return;
  const auto found = memory->blocks.find(block);
  if (found == memory->blocks.end())
    return memory->faults.push_back("free of something that is not a live block");
  const block_info info = found->second;
  auto* const start = static_cast<unsigned char*>(block) - guard_size;
  if (!intact(start) || !intact(start + guard_size + info.size))
    memory->faults.push_back("writing beyond " + describe(info));
  if (info.serial >= memory->first_serial) memory->live_bytes -= info.size;
  std::memset(start, freed_byte, info.size + 2 * guard_size);
  memory->blocks.erase(found);
  std::free(start);
}

void script(size_t nth, bool all_from) {
  entry memory;
  memory->calls = 0;
  memory->failing = nth;
  memory->all_from = all_from;
  memory->failed = false;
}

}  // namespace

fake_memory::fake_memory() {
  script(0, false);
  entry memory;
  memory->faults.clear();
  memory->first_serial = memory->serial + 1;
  memory->live_bytes = 0;
  memory->peak_bytes = 0;
}

fake_memory::~fake_memory() {
  script(0, false);
  fail_by(nullptr);
}

void fake_memory::fail(size_t nth) { script(nth, false); }
void fake_memory::fail_from(size_t nth) { script(nth, true); }
void fake_memory::never_fail() { script(0, false); }
void fake_memory::fail_by(std::function<void()> thrower) { entry()->thrower = std::move(thrower); }
bool fake_memory::failed() const { return entry()->failed; }
size_t fake_memory::calls() const { return entry()->calls; }
size_t fake_memory::live_bytes() const { return entry()->live_bytes; }
size_t fake_memory::peak_bytes() const { return entry()->peak_bytes; }
std::string fake_memory::faults() { return joined(entry()->faults); }

bool fake_memory::any_mutex_held() const {
  entry memory;
  return std::any_of(memory->mutexes.begin(), memory->mutexes.end(),
                     [](const UtlMutex* mutex) { return mutex->held; });
}

std::string fake_memory::problems() const {
  entry memory;
  std::vector<std::string> lines = memory->faults;
  for (const auto& [block, info] : memory->blocks)
    if (info.serial >= memory->first_serial) lines.push_back("leak of " + describe(info));
  for (const UtlMutex* mutex : memory->mutexes)
    if (mutex->serial >= memory->first_serial) lines.push_back("leak of a mutex");
  return joined(lines);
}

bool fake_memory::clean() const {
  const std::string found = problems();
  std::cerr << found;
  return found.empty();
}

}  // namespace tav_test

using tav_test::entry;

void* UtlOS::MemAllocate(size_t size) {
  entry memory;
  return tav_test::allocate(memory, size);
}

void* UtlOS::MemReallocate(void* block, size_t size) {
  entry memory;
  const auto found = memory->blocks.find(block);
  if (block != nullptr && found == memory->blocks.end()) {
    memory->faults.push_back("reallocation of something that is not a live block");
    return nullptr;
  }
  void* const moved = tav_test::allocate(memory, size);
  if (moved == nullptr || block == nullptr) return moved;
  std::memcpy(moved, block, std::min(found->second.size, size));
  tav_test::release(memory, block);
  return moved;
}

void UtlOS::MemFree(void* block) noexcept {
  entry memory;
  tav_test::release(memory, block);
}

UtlMutex* UtlOS::CreateMutex() noexcept {
  entry memory;
  if (memory.fails_now()) return nullptr;
  auto mutex = std::make_unique<UtlMutex>();
  mutex->serial = ++memory->serial;
  memory->mutexes.push_back(mutex.get());
  return mutex.release();
}

// Nothing waits here: a mutex that another thread holds is not to be had.
int UtlOS::TakeMutex(UtlMutex* mutex) noexcept {
  entry memory;
  const auto self = std::this_thread::get_id();
  if (mutex == nullptr || (mutex->held && mutex->holder != self)) return 0;
  mutex->held = true;
  mutex->holder = self;
  return 1;
}

int UtlOS::GiveMutex(UtlMutex* mutex) noexcept {
  entry memory;
  const bool may = mutex != nullptr && mutex->held && mutex->holder == std::this_thread::get_id();
  if (may) mutex->held = false;
  return may ? 1 : 0;
}

void UtlOS::DeleteMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return;
  entry memory;
  const auto found = std::find(memory->mutexes.begin(), memory->mutexes.end(), mutex);
  if (found == memory->mutexes.end())
    return memory->faults.push_back("deletion of something that is not a mutex");
  memory->mutexes.erase(found);
  delete mutex;
}

void* osw_SubAllocMem(size_t size) noexcept {
  entry memory;
  return memory.fails_now() ? nullptr : tav_test::new_block(memory, size);
}

void osw_OrgFreeMemPart(int32_t, void* block) noexcept { UtlOS::MemFree(block); }
