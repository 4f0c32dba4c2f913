// waits.h - what holds for every wait of the platform, whatever it waits for.

#ifndef WAITS_H
#define WAITS_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <thread>
#include <vector>

namespace contract {

// Milliseconds since the construction.
class stopwatch {
 public:
  int64_t elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - m_start).count();
  }

 private:
  using clock = std::chrono::steady_clock;
  clock::time_point m_start = clock::now();
};

inline void pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// A wait for a peer that does nothing, with a limit in milliseconds.
struct waiting {
  const char* name;
  int32_t (*run)(int32_t limit);
  int32_t result;
};

// Ends at its time, and no signal ends it sooner, makes it fail or begin anew.
inline void expect_timely(const std::vector<waiting>& waits) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART
  for (const waiting& test : waits) {
    SCOPED_TRACE(test.name);
    std::atomic<bool> is_over{false};
    std::thread alarm([&, self = pthread_self()] {
      for (int i = 0; i < 100 && !is_over; ++i) pause(40), pthread_kill(self, SIGUSR1);
    });
    const stopwatch watch;
    EXPECT_EQ(test.run(300), test.result);
    EXPECT_GE(watch.elapsed(), 300);
    EXPECT_LT(watch.elapsed(), 2000);
    is_over = true;
    alarm.join();
  }
}

// No limit is the port's own of 30 s, neither a single poll nor for ever. They wait side by side: a
// lock that one held would make another late.
inline void expect_own_limit(const std::vector<waiting>& waits) {
  std::vector<std::thread> threads;
  for (const waiting& test : waits) {
    for (const int32_t limit : {0, -1}) {
      threads.emplace_back([&test, limit] {
        SCOPED_TRACE(test.name);
        const stopwatch watch;
        EXPECT_EQ(test.run(limit), test.result);
        EXPECT_GE(watch.elapsed(), 29000);
        EXPECT_LT(watch.elapsed(), 35000);
      });
    }
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace contract

#endif
