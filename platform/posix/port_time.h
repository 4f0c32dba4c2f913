// port_time.h - deadlines.

#ifndef PORT_TIME_H
#define PORT_TIME_H

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

constexpr int32_t kDefaultTimeoutMs = 30000;

// A point in time that every wait of one call shares.
class deadline {
 public:
  // 0 or less means the port's own limit.
  explicit deadline(int32_t timeout_ms)
      : m_cEnd(std::chrono::steady_clock::now() +
               std::chrono::milliseconds(timeout_ms > 0 ? timeout_ms : kDefaultTimeoutMs)) {}

  // Milliseconds that are left, rounded up; 0 when none are.
  int rest() const {
    const auto rest =
        std::chrono::ceil<std::chrono::milliseconds>(m_cEnd - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<int64_t>(rest.count(), 0));
  }

  // Also when the port has been woken.
  bool is_over() const;

  // Waits for one of `events` on `fd`, or for the time alone when `fd` is negative: above 0 when
  // there is one, 0 when the time is over or the port has been woken, -1 for an error. Signals do
  // not shorten the wait.
  int wait(int fd, short events) const;

  // The same for sending, but returns after a short while to let the caller try: the system calls a
  // socket writable when a third of its buffer is empty, and a slow peer takes long to read that.
  int wait_for_room(int fd) const;

 private:
  std::chrono::steady_clock::time_point m_cEnd;
};

#endif
