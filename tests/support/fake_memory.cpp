#include "fake_memory.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

#include "osw.h"
#include "utl_os.h"

struct UtlMutex {
  bool held;
};

namespace tav_test {
namespace {

constexpr size_t most_granted = size_t{1} << 30;

allocations device;
std::function<void()> device_thrower;
int mutexes_held = 0;
std::vector<std::string> secrets;
size_t secrets_left = 0;  // in blocks that were freed

void* allocate(size_t size) {
  if (!device.fails_now()) return device.give(size);
  if (device_thrower) device_thrower();
  return nullptr;
}

void hold(UtlMutex* mutex, bool held) {
  mutexes_held += (held ? 1 : 0) - (mutex->held ? 1 : 0);
  mutex->held = held;
}

}  // namespace

bool allocations::fails_now() {
  if (new_failure_pauses > 0) return false;
  ++calls;
  const bool fails = failing != 0 && (all_from ? calls >= failing : calls == failing);
  failed = failed || fails;
  return fails;
}

void* allocations::give(size_t size) {
  void* const block = size <= most_granted ? std::malloc(std::max<size_t>(size, 1)) : nullptr;
  if (block == nullptr) return nullptr;
  if (new_failure_pauses == 0) largest_block = std::max(largest_block, size);
  const size_t usable = malloc_usable_size(block);
  // All of it is searched when it is freed. A fortified build ends at memset of more than `size`.
  std::fill_n(static_cast<char*>(block), usable, '\xA5');
  ++blocks;
  live_bytes += usable;
  peak_bytes = std::max(peak_bytes, live_bytes);
  return block;
}

// It may have been given away before anybody counted.
void allocations::take_back(void* block) {
  if (block == nullptr) return;
  --blocks;
  live_bytes -= std::min(malloc_usable_size(block), live_bytes);
  std::free(block);
}

fake_memory::fake_memory() {
  device = {};
  mutexes_held = 0;
  secrets_left = 0;
}

fake_memory::~fake_memory() {
  never_fail();
  secrets.clear();
}

void fake_memory::fail(size_t nth, bool all_from) {
  device.calls = 0;
  device.failing = nth;
  device.all_from = all_from;
  device.failed = false;
}

void fake_memory::never_fail() {
  fail(0);
  fail_by(nullptr);
}

void fake_memory::fail_by(std::function<void()> thrower) { device_thrower = std::move(thrower); }
const allocations& fake_memory::state() const { return device; }
bool fake_memory::any_mutex_held() const { return mutexes_held != 0; }

void fake_memory::watch_for(std::vector<std::string> texts) { secrets = std::move(texts); }

bool fake_memory::clean() const {
  if (device.blocks != 0) std::cerr << device.blocks << " blocks or mutexes were not freed\n";
  if (secrets_left != 0) std::cerr << secrets_left << " blocks were freed with a secret in them\n";
  return device.blocks == 0 && secrets_left == 0;
}

}  // namespace tav_test

void* UtlOS::MemAllocate(size_t size) { return tav_test::allocate(size); }

void* UtlOS::MemReallocate(void* block, size_t size) {
  void* const moved = tav_test::allocate(size);
  if (moved == nullptr || block == nullptr) return moved;
  std::memcpy(moved, block, std::min(malloc_usable_size(block), size));
  MemFree(block);
  return moved;
}

void UtlOS::MemFree(void* block) noexcept {
  using namespace tav_test;
  if (block == nullptr) return;
  const std::string_view text(static_cast<char*>(block), malloc_usable_size(block));
  for (const std::string& secret : secrets)
    if (new_failure_pauses == 0 && text.find(secret) != text.npos) ++secrets_left;
  device.take_back(block);
}

UtlMutex* UtlOS::CreateMutex() noexcept {
  if (tav_test::device.fails_now()) return nullptr;
  auto* const mutex = static_cast<UtlMutex*>(tav_test::device.give(sizeof(UtlMutex)));
  mutex->held = false;
  return mutex;
}

int UtlOS::TakeMutex(UtlMutex* mutex) noexcept {
  if (mutex != nullptr) tav_test::hold(mutex, true);
  return mutex != nullptr ? 1 : 0;
}

int UtlOS::GiveMutex(UtlMutex* mutex) noexcept {
  const bool may = mutex != nullptr && mutex->held;
  if (may) tav_test::hold(mutex, false);
  return may ? 1 : 0;
}

void UtlOS::DeleteMutex(UtlMutex* mutex) noexcept {
  GiveMutex(mutex);
  MemFree(mutex);
}

void* osw_SubAllocMem(size_t size) noexcept {
  return tav_test::device.fails_now() ? nullptr : tav_test::device.give(size);
}

void osw_OrgFreeMemPart(int32_t, void* block) noexcept { UtlOS::MemFree(block); }
