#include "port_time.h"

#include <cerrno>

#include "wake.h"

bool deadline::is_over() const { return is_woken() || rest() == 0; }

int deadline::wait(int fd, short events) const {
  constexpr int kSlice = 100;  // between looks whether the port was woken, when nothing tells
  pollfd fds[] = {{fd, events, 0}, {wake_descriptor(), POLLIN, 0}};
  for (;;) {
    const int left = rest();
    if (left == 0 || is_woken()) return 0;
    const int ready = poll(fds, 2, fds[1].fd >= 0 ? left : std::min(left, kSlice));
    if (ready < 0 && errno != EINTR) return -1;
    if (ready <= 0) continue;
    if (fds[0].revents != 0) return 1;
    if (fds[1].revents == POLLIN) {
      if (!is_woken()) settle_wake();
    } else {
      fds[1].fd = -1;  // somebody has closed it
    }
  }
}

int deadline::wait_for_room(int fd) const {
  constexpr int kShort = 100;
  const int left = rest();
  const int ready = left > kShort ? deadline(kShort).wait(fd, POLLOUT) : wait(fd, POLLOUT);
  return ready == 0 && left > kShort && !is_woken() ? 1 : ready;
}
