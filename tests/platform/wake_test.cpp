// tav_wake.h, an extension of the Linux port: other ports leave this file out.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>
#include <vector>

#include "osw.h"
#include "socket_fixture.h"
#include "tav_wake.h"
#include "tlsw.h"

namespace {

// How long the system's resolver takes.
std::atomic<int> g_resolver_ms{0};

}  // namespace

// In place of the system's resolver, for the port too.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* host,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** list) {
  if (hints == nullptr || (hints->ai_flags & AI_NUMERICHOST) == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(g_resolver_ms));
  }
  using function = decltype(&getaddrinfo);
  static const auto system = reinterpret_cast<function>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return system(host, service, hints, list);
}

namespace {

using namespace contract;

constexpr int32_t kLong = 20000;

// Two connections whose other ends do nothing.
class Wake : public testing::Test {
 protected:
  Wake() : m_quiet(connect_to("127.0.0.1", m_listener.port())), m_quiet_end(m_listener.accept()) {
    m_full = connect_to("127.0.0.1", m_listener.port());
    m_full_end = m_listener.accept();
  }
  ~Wake() override {
    tav_wake_clear();
    for (const int32_t sock : {m_quiet, m_full}) tav_netsock_close(sock);
    for (const int end : {m_quiet_end, m_full_end}) close(end);
  }

  int32_t connect_in_vain() {
    const auto address = loopback(m_listener.port());
    std::vector<int32_t> queued;
    int32_t result = 0;
    for (int i = 0; i < 12 && result == 0; ++i) {
      const int32_t sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
      result = tav_netsock_connect_timeo(sock, &address, sizeof address, kLong);
      queued.push_back(sock);
    }
    for (const int32_t sock : queued) tav_netsock_close(sock);
    return result;
  }
  int32_t handshake() {
    uint32_t context = 0;
    uint32_t session = 0;
    tlsw_init(&context);
    const TLSW_CONNECT_PARAM param{m_quiet, kLong, {}, {}};
    const int32_t result = tlsw_connect_timeo(context, &param, &session);
    tlsw_term(context);
    return result;
  }
  static int32_t resolve() {
    tav_netsock_addrinfo* list = nullptr;
    const int32_t result = tav_netsock_getaddrinfo("localhost", nullptr, nullptr, &list);
    tav_netsock_freeaddrinfo(list);
    return result;
  }
  // Nobody reads. The system takes a little more each time, until it is full.
  int32_t send_in_vain() {
    const std::string much(1 << 20, 'x');
    int32_t result = 1;
    while (result > 0) result = tav_netsock_send_timeo(m_full, much.data(), 1 << 20, 0, kLong);
    return result;
  }
  int32_t receive(int32_t timeout_ms = kLong) {
    char byte;
    return tav_netsock_recv_timeo(m_quiet, &byte, 1, 0, timeout_ms);
  }

  listener m_listener;
  int32_t m_quiet;
  int m_quiet_end;
  int32_t m_full = 0;
  int m_full_end = 0;
};

TEST_F(Wake, ends_every_wait_at_once_until_it_is_cleared) {
  const struct {
    const char* name;
    std::function<int32_t()> wait;
    int32_t result;
  } cases[] = {
      {"receive", [this] { return receive(); }, TAV_NETSOCK_TIMEOUT},
      {"send", [this] { return send_in_vain(); }, TAV_NETSOCK_TIMEOUT},
      {"connect", [this] { return connect_in_vain(); }, TAV_NETSOCK_TIMEOUT},
      {"handshake", [this] { return handshake(); }, TLSW_ERR_TIMEOUT},
      {"resolve", [] { return resolve(); }, EAI_AGAIN},
      {"sleep", [] { return osw_Sleep(kLong), 0; }, 0},
  };
  static pthread_t waiting;
  waiting = pthread_self();
  std::signal(SIGUSR1, [](int) { tav_wake(); });
  g_resolver_ms = 900;
  for (const auto& test : cases) {
    for (const bool is_signal : {false, true}) {
      SCOPED_TRACE(test.name);
      std::thread other([is_signal] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (is_signal) pthread_kill(waiting, SIGUSR1);
        if (!is_signal) tav_wake();
      });
      const stopwatch watch;
      EXPECT_EQ(test.wait(), test.result);
      EXPECT_GE(watch.elapsed(), 100);
      EXPECT_LT(watch.elapsed(), 800);
      other.join();
      const stopwatch again;
      EXPECT_EQ(test.wait(), test.result);
      EXPECT_LT(again.elapsed(), 800);
      tav_wake_clear();
    }
  }
  g_resolver_ms = 0;
  EXPECT_EQ(resolve(), 0);
  const stopwatch watch;
  EXPECT_EQ(receive(150), TAV_NETSOCK_TIMEOUT);
  EXPECT_GE(watch.elapsed(), 150);
  EXPECT_EQ(send(m_quiet_end, "a", 1, 0), 1);
  tav_wake();
  EXPECT_EQ(receive(), TAV_NETSOCK_TIMEOUT) << "a peer that sends and sends holds nobody up";
  tav_wake_clear();
  EXPECT_EQ(receive(), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(900));  // what was asked is answered now
}

// One signal for all, and clearing at the same time loses none.
TEST_F(Wake, reaches_all_threads) {
  std::vector<std::thread> waiting;
  std::atomic<int> ended{0};
  for (int i = 0; i < 8; ++i) {
    waiting.emplace_back([&ended] {
      osw_Sleep(kLong);
      ++ended;
    });
  }
  for (int i = 0; i < 2000; ++i) {
    std::thread other([] { tav_wake_clear(); });
    tav_wake();
    other.join();
    tav_wake_clear();
    if (ended == 8) break;
  }
  tav_wake();
  const stopwatch watch;
  for (auto& thread : waiting) thread.join();
  EXPECT_LT(watch.elapsed(), 5000);
}

}  // namespace
