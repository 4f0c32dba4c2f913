// tav_wake.h, an extension of the Linux port: other ports leave this file out.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "socket_fixture.h"
#include "tav_wake.h"

namespace {
std::atomic<int> g_resolver_ms{0};
}

// In place of the system's resolver, for the port too: it may take long.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* host,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** list) {
  if (hints == nullptr || (hints->ai_flags & AI_NUMERICHOST) == 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(g_resolver_ms));
  static const auto system =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return system(host, service, hints, list);
}

namespace {

using namespace contract;

constexpr int32_t kLong = 20000;

TEST(Wake, ends_every_wait_at_once_until_it_is_cleared) {
  static pthread_t here;
  here = pthread_self();
  std::signal(SIGUSR1, [](int) { tav_wake(); });
  std::vector<waiting> waits(std::begin(kWaits), std::end(kWaits));
  waits.push_back(
      {"resolve", [](const pair&, int32_t) { return resolve("localhost"); }, EAI_AGAIN});
  g_resolver_ms = 900;
  for (const waiting& test : waits) {
    for (const bool is_signal : {false, true}) {
      SCOPED_TRACE(test.name);
      const pair p;
      std::thread other([is_signal] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        is_signal ? void(pthread_kill(here, SIGUSR1)) : tav_wake();
      });
      const stopwatch watch;
      EXPECT_EQ(test.run(p, kLong), test.result);
      EXPECT_GE(watch.elapsed(), 100);
      EXPECT_LT(watch.elapsed(), 800);
      other.join();
      EXPECT_EQ(test.run(p, kLong), test.result);
      EXPECT_LT(watch.elapsed(), 1600);
      tav_wake_clear();
    }
  }
  g_resolver_ms = 0;
  EXPECT_EQ(resolve("localhost"), 0);
  const pair p;
  const stopwatch watch;
  EXPECT_EQ(kWaits[0].run(p, 150), TAV_NETSOCK_TIMEOUT);
  EXPECT_GE(watch.elapsed(), 150);
  EXPECT_EQ(send(p.theirs, "a", 1, 0), 1);
  tav_wake();
  EXPECT_EQ(kWaits[0].run(p, kLong), TAV_NETSOCK_TIMEOUT) << "who sends and sends holds nobody up";
  tav_wake_clear();
  EXPECT_EQ(kWaits[0].run(p, kLong), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(900));  // what was asked is answered now
}

// One signal for all, and clearing at the same time loses none.
TEST(Wake, reaches_all_threads) {
  std::vector<std::thread> sleeping;
  std::atomic<int> ended{0};
  for (int i = 0; i < 8; ++i) sleeping.emplace_back([&ended] { osw_Sleep(kLong), ++ended; });
  for (int i = 0; i < 2000 && ended < 8; ++i) {
    std::thread other(tav_wake_clear);
    tav_wake();
    other.join();
    tav_wake_clear();
  }
  tav_wake();
  const stopwatch watch;
  for (std::thread& thread : sleeping) thread.join();
  EXPECT_LT(watch.elapsed(), 5000);
  tav_wake_clear();
}

}  // namespace
