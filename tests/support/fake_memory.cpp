#include "fake_memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <set>

#include "fail_new.h"
#include "osw.h"
#include "utl_os.h"

struct UtlMutex {
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
  std::map<void*, block_info> blocks;
  std::set<UtlMutex*> mutexes;
  std::string faults;  // one a line
  std::vector<std::string> secrets;
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

// Entry of every call: no failing operator new below the code under test.
class entry {
 public:
  memory_state* operator->() const { return &state(); }

  // A part of the test never fails.
  bool fails_now() const {
    if (m_isTestsOwn) return false;
    const size_t call = ++state().calls, failing = state().failing;
    const bool fails = failing != 0 && (state().all_from ? call >= failing : call == failing);
    state().failed = state().failed || fails;
    return fails;
  }

 private:
  const bool m_isTestsOwn = detail::new_failure.pauses > 0;
  const new_failure_pause m_pause;
};

bool intact(const unsigned char* guard) {
  return std::all_of(guard, guard + guard_size, [](unsigned char c) { return c == guard_byte; });
}

void* new_block(const entry& memory, size_t size) {
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

void* allocate(const entry& memory, size_t size) {
  if (!memory.fails_now()) return new_block(memory, size);
  if (memory->thrower) memory->thrower();
  return nullptr;
}

void release(const entry& memory, void* block) {
  if (block == nullptr) return;
  const auto found = memory->blocks.find(block);
  if (found == memory->blocks.end()) {
    memory->faults += "free of something that is not a live block\n";
    return;
  }
  const auto [size, serial] = found->second;
  auto* const start = static_cast<unsigned char*>(block) - guard_size;
  if (!intact(start) || !intact(start + guard_size + size))
    memory->faults += "writing beyond a block of " + std::to_string(size) + " bytes\n";
  const std::string_view text(static_cast<char*>(block), size);
  for (const std::string& secret : memory->secrets)
    if (text.find(secret) != text.npos) memory->faults += "a secret in a freed block\n";
  if (serial >= memory->first_serial) memory->live_bytes -= size;
  std::memset(start, freed_byte, size + 2 * guard_size);
  memory->blocks.erase(found);
  std::free(start);
}

}  // namespace

fake_memory::fake_memory() {
  never_fail();
  const entry memory;
  memory->faults.clear();
  memory->first_serial = memory->serial + 1;
  memory->live_bytes = 0;
  memory->peak_bytes = 0;
}

fake_memory::~fake_memory() { never_fail(); }

void fake_memory::fail(size_t nth, bool all_from) {
  memory_state& memory = state();
  memory.calls = 0;
  memory.failing = nth;
  memory.all_from = all_from;
  memory.failed = false;
}
void fake_memory::never_fail() {
  fail(0);
  fail_by(nullptr);
}
void fake_memory::fail_by(std::function<void()> thrower) { state().thrower = std::move(thrower); }
bool fake_memory::failed() const { return state().failed; }
size_t fake_memory::calls() const { return state().calls; }
size_t fake_memory::live_bytes() const { return state().live_bytes; }
size_t fake_memory::peak_bytes() const { return state().peak_bytes; }
void fake_memory::watch_for(std::vector<std::string> secrets) {
  state().secrets = std::move(secrets);
}
std::string fake_memory::faults() { return state().faults; }

bool fake_memory::any_mutex_held() const {
  const auto& mutexes = state().mutexes;
  return std::any_of(mutexes.begin(), mutexes.end(), [](const UtlMutex* one) { return one->held; });
}

bool fake_memory::clean() const {
  const entry memory;
  std::string found = memory->faults;
  for (const auto& [block, info] : memory->blocks)
    if (info.serial >= memory->first_serial)
      found += "leak of " + std::to_string(info.size) + " bytes\n";
  for (const UtlMutex* mutex : memory->mutexes)
    if (mutex->serial >= memory->first_serial) found += "leak of a mutex\n";
  std::cerr << found;
  return found.empty();
}

}  // namespace tav_test

using tav_test::entry;

void* UtlOS::MemAllocate(size_t size) { return tav_test::allocate(entry(), size); }

void* UtlOS::MemReallocate(void* block, size_t size) {
  const entry memory;
  void* const moved = tav_test::allocate(memory, size);
  if (moved == nullptr || block == nullptr) return moved;
  std::memcpy(moved, block, std::min(memory->blocks[block].size, size));
  tav_test::release(memory, block);
  return moved;
}

void UtlOS::MemFree(void* block) noexcept { tav_test::release(entry(), block); }

UtlMutex* UtlOS::CreateMutex() noexcept {
  const entry memory;
  if (memory.fails_now()) return nullptr;
  auto* const mutex = new UtlMutex;
  mutex->serial = ++memory->serial;
  memory->mutexes.insert(mutex);
  return mutex;
}

int UtlOS::TakeMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return 0;
  mutex->held = true;
  return 1;
}

int UtlOS::GiveMutex(UtlMutex* mutex) noexcept {
  const bool may = mutex != nullptr && mutex->held;
  if (may) mutex->held = false;
  return may ? 1 : 0;
}

void UtlOS::DeleteMutex(UtlMutex* mutex) noexcept {
  if (mutex == nullptr) return;
  const entry memory;
  if (memory->mutexes.erase(mutex) == 1)
    delete mutex;
  else
    memory->faults += "deletion of something that is not a mutex\n";
}

void* osw_SubAllocMem(size_t size) noexcept {
  const entry memory;
  return memory.fails_now() ? nullptr : tav_test::new_block(memory, size);
}

void osw_OrgFreeMemPart(int32_t, void* block) noexcept { UtlOS::MemFree(block); }
