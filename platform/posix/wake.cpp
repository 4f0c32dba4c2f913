#include "wake.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "tav_wake.h"

// A signal handler may interrupt each of these functions and call tav_wake(), so nothing here takes
// a lock. Whoever waits publishes the descriptor before it looks at the flag, and tav_wake() sets
// the flag before it looks for the descriptor: one of them always sees the other.

namespace {

std::atomic<bool> g_is_woken{false};
std::atomic<int> g_descriptor{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void signal_waits() {
  const int fd = g_descriptor;
  if (fd < 0) return;
  const int saved = errno;
  const uint64_t one = 1;
  // It cannot be made fuller than full, and full wakes as well.
  if (write(fd, &one, sizeof one) < 0) errno = saved;
}

}  // namespace

bool is_woken() noexcept { return g_is_woken; }

int wake_descriptor() noexcept {
  const int known = g_descriptor;
  if (known >= 0) return known;
  const int made = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (made < 0) return -1;
  int other = -1;
  if (g_descriptor.compare_exchange_strong(other, made)) return made;
  close(made);
  return other;
}

void settle_wake() noexcept {
  uint64_t count;
  const int fd = g_descriptor;
  if (fd < 0 || read(fd, &count, sizeof count) < 0) return;
  // What was taken may have been the signal of somebody who woke the port meanwhile.
  if (g_is_woken) signal_waits();
}

void tav_wake(void) noexcept {
  g_is_woken = true;
  signal_waits();
}

void tav_wake_clear(void) noexcept {
  g_is_woken = false;
  settle_wake();
}
