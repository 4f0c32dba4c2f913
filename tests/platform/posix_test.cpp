// What platform/posix does beyond the contract; other ports leave this file out.

#include <dlfcn.h>
#include <netdb.h>

#include <atomic>
#include <cstdlib>

#include "cfg_group.h"
#include "osw.h"
#include "tav_bearer_source.h"
#include "tav_wake.h"
#include "tav_wiretap.h"
#include "tls_fixture.h"

// In place of the system's resolver, for the port too: one name takes long.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* host,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** list) {
  if ((hints->ai_flags & AI_NUMERICHOST) == 0) contract::pause(*host == 's' ? 900 : 0);
  static const auto system =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return system(host, service, hints, list);
}

// The nth allocation of a thread fails; 0: none. Weak, as the sanitizers of clang have their own.
static thread_local int fails_at = 0;
__attribute__((weak)) void* operator new(size_t size) {
  void* const block = fails_at > 0 && --fails_at == 0 ? nullptr : std::malloc(size);
  return block != nullptr ? block : throw std::bad_alloc();
}
__attribute__((weak)) void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size);
}
__attribute__((weak)) void operator delete(void* block) noexcept { std::free(block); }
__attribute__((weak)) void operator delete(void* block, size_t) noexcept { std::free(block); }

namespace {

using namespace contract;

constexpr int32_t kLong = 20000;

TEST(Wake, ends_every_wait_at_once_until_it_is_cleared) {
  static pthread_t here;
  here = pthread_self();
  std::signal(SIGUSR1, [](int) { tav_wake(); });
  std::vector<waiting> waits = kSocketWaits;
  waits.insert(waits.end(), kTlsWaits.begin(), kTlsWaits.end());
  waits.push_back({"sleep", [](int32_t limit) { return osw_Sleep(limit), 0; }, 0});
  waits.push_back({"resolve", [](int32_t) { return resolve("slow.localhost"); }, EAI_AGAIN});
  for (const waiting& test : waits) {
    for (const bool is_signal : {false, true}) {
      SCOPED_TRACE(test.name);
      std::thread other([is_signal] {
        pause(100);
        is_signal ? void(pthread_kill(here, SIGUSR1)) : tav_wake();
      });
      const stopwatch watch;
      EXPECT_EQ(test.run(kLong), test.result);
      EXPECT_GE(watch.elapsed(), 100);
      EXPECT_LT(watch.elapsed(), 800);
      other.join();
      tav_wake_clear();
    }
  }
  const pair p;
  EXPECT_EQ(send(p.theirs, "a", 1, 0), 1);
  tav_wake();
  EXPECT_EQ(receive_byte(p.ours, kLong), TAV_NETSOCK_TIMEOUT)
      << "who sends and sends holds nobody up";
  EXPECT_EQ(tav_netsock_send_timeo(p.ours, "a", 1, 0, kLong), TAV_NETSOCK_TIMEOUT);
  EXPECT_NE(resolve("localhost"), 0);
  EXPECT_LT(connect_to(p.port), 0);
  tav_wake_clear();
  EXPECT_EQ(receive_byte(p.ours, kLong), 1);
  const stopwatch watch;
  EXPECT_EQ(receive_byte(p.ours, 150), TAV_NETSOCK_TIMEOUT);
  EXPECT_GE(watch.elapsed(), 150);
  pause(900);  // what was asked is answered now
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

TEST(Posix, flags_mean_what_the_system_means_also_of_bytes_read_ahead) {
  const pair p;
  char bytes[9] = {};
  const auto receive = [&](int32_t length, int32_t flags) {
    const int32_t count = tav_netsock_recv_timeo(p.ours, bytes, length, flags, 20);
    return std::string(bytes, static_cast<size_t>(std::max(count, 0)));
  };
  ASSERT_EQ(send(p.theirs, "12345678", 8, 0), 8);
  EXPECT_EQ(receive(5, MSG_WAITALL), "12345");
  EXPECT_EQ(receive(1, 0), "6");
  EXPECT_EQ(receive(8, MSG_PEEK), "78");
  EXPECT_EQ(receive(8, 0), "78");
  EXPECT_EQ(receive(8, MSG_PEEK), "");
}

// A device may hand over a socket that it has made by itself: nothing is kept for it.
TEST(Posix, a_socket_of_others_is_left_as_it_is) {
  for (const int mode : {0, int{SOCK_NONBLOCK}}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | mode, 0, ends), 0);
    char bytes[8] = {};
    EXPECT_EQ(tav_netsock_recv_timeo(ends[0], bytes, 8, 0, 50), TAV_NETSOCK_TIMEOUT);
    EXPECT_EQ(tav_netsock_send_timeo(ends[1], "abc", 3, 0, 1000), 3);
    EXPECT_EQ(tav_netsock_recv_timeo(ends[0], bytes, 1, 0, 1000), 1);
    EXPECT_EQ(recv(ends[0], bytes + 1, 7, 0), 2);
    EXPECT_STREQ(bytes, "abc");
    EXPECT_EQ(fill(ends[1], 50), TAV_NETSOCK_TIMEOUT);
    close(ends[0]);
    EXPECT_EQ(tav_netsock_send_timeo(ends[1], "x", 1, 0, 50), TAV_NETSOCK_ERROR);
    close(ends[1]);
  }
}

TEST(Posix, the_settings_come_from_variables_and_a_file) {
  const std::string path = testing::TempDir() + "device." + std::to_string(getpid());
  std::ofstream(path) << "# device\nprinter_name = aaaaaaaaaaa日本語日本語日本語\n"
                      << "serial_number=SN 1\n equipment_id =\t" << std::string(100, 'e') << "\n";
  setenv("TAV_DEVICE_SETTINGS", path.c_str(), 1);
  unsetenv("TAV_PRINTER_NAME");
  CFG_EVENT_MAIL record;
  EXPECT_EQ(cfg_group_get_event_mail(&record), CFG_OK);
  // 32 bytes are 11 letters and seven of the characters: never half of one.
  EXPECT_STREQ(record.printer_name, "aaaaaaaaaaa日本語日本語日");
  EXPECT_STREQ(record.serial_number, "SN 1");
  EXPECT_EQ(std::string(record.equipment_id), std::string(16, 'e'));
  EXPECT_STRNE(record.host_name, "");
  std::remove(path.c_str());
  setenv("TAV_PRINTER_NAME", "MFP1", 1);
  setenv("TAV_DEVICE_SETTINGS", "/none", 1);
  EXPECT_EQ(cfg_group_get_event_mail(&record), CFG_OK_PARTIAL);
  EXPECT_STREQ(record.printer_name, "MFP1");
  EXPECT_STREQ(record.serial_number, "");
}

TEST(Posix, a_handshake_that_lacks_memory_ends_once) {
  int ends = 0, left = 0;
  tav_wiretap_set(
      [](void* count, TAV_WIRETAP_EVENT event, const char*, size_t) {
        *static_cast<int*>(count) += event == TAV_WIRETAP_TLS_STARTED ||
                                     event == TAV_WIRETAP_TLS_REFUSED ||
                                     event == TAV_WIRETAP_TLS_FAILED;
      },
      &ends);
  fails_at = 1000;
  uint32_t context;
  tlsw_init(&context);
  for (int nth = 1000 - std::exchange(fails_at, 0) + 1; left == 0; ++nth, ends = 0) {
    far_end far;
    far.prepare = [nth](tls_line&) { fails_at = nth; };
    const tls_line line({1}, 1000, far);
    left = std::exchange(fails_at, 0);
    EXPECT_EQ(ends, 1) << nth << " gives " << line.result;
  }
  tlsw_term(context);
  tav_wiretap_set(nullptr, nullptr);
}

TEST(Posix, no_source_and_one_that_fails_give_no_token) {
  const tav_bearer_request request = {TAV_BEARER_POP3, "mail.example", "anna", 0, 1000};
  char token[8];
  const tav_bearer_source_fn sources[] = {
      nullptr,
      [](void*, const tav_bearer_request*, char*, int32_t) -> int32_t { throw std::bad_alloc(); },
      [](void*, const tav_bearer_request*, char*, int32_t) -> int32_t { return -1; },
  };
  for (const tav_bearer_source_fn source : sources) {
    tav_bearer_source_set(source, nullptr);
    EXPECT_LE(tav_bearer_get(&request, token, sizeof token), 0);
  }
  tav_bearer_source_set(nullptr, nullptr);
}

}  // namespace
