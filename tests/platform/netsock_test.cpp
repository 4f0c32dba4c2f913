#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <random>
#include <thread>

#include "socket_fixture.h"

namespace {

using namespace contract;

// What comes within a second, at most `length` bytes.
std::string received(int32_t sock, size_t length, int32_t flags = 0) {
  std::string text(length, '\0');
  const int32_t count =
      tav_netsock_recv_timeo(sock, text.data(), static_cast<int32_t>(length), flags, 1000);
  text.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return text;
}

TEST(NetsockContract, a_call_without_a_socket_fails_and_touches_nothing) {
  const tav_netsock_sockaddr_in address{};
  char byte = 0;
  for (const int32_t none : {0, -1}) {
    EXPECT_EQ(tav_netsock_connect_timeo(none, &address, sizeof address, 100), -1);
    EXPECT_EQ(tav_netsock_send_timeo(none, &byte, 1, 0, 100), -1);
    EXPECT_EQ(tav_netsock_recv_timeo(none, &byte, 1, 0, 100), -1);
    EXPECT_EQ(tav_netsock_shutdown(none), -1);
    EXPECT_EQ(tav_netsock_close(none), -1);
  }
}

TEST(NetsockContract, handle_0_is_never_a_socket) {
  const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
  close(0);
  const int32_t sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
  EXPECT_GT(sock, 0);
  EXPECT_EQ(fcntl(0, F_GETFD), -1) << "descriptor 0 was left open";
  tav_netsock_close(sock);
  dup2(saved, 0);
  close(saved);
}

TEST(NetsockContract, a_refused_connection_and_an_unknown_name_are_errors) {
  listener gone;
  gone.stop();
  EXPECT_EQ(connect_to(gone.port()), TAV_NETSOCK_ERROR);
  EXPECT_NE(resolve("no-such-name.invalid"), 0);
}

// TLS keeps its time, too.
TEST(NetsockContract, a_wait_ends_at_its_time_and_no_signal_shortens_it) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART
  const pthread_t self = pthread_self();
  for (const waiting& test : kWaits) {
    SCOPED_TRACE(test.name);
    const pair p;
    std::thread alarm([self] {
      for (int i = 0; i < 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        pthread_kill(self, SIGUSR1);
      }
    });
    const stopwatch watch;
    EXPECT_EQ(test.run(p, 300), test.result);
    EXPECT_GE(watch.elapsed(), 300);
    EXPECT_LT(watch.elapsed(), 900);
    alarm.join();
  }
}

TEST(NetsockContract, no_limit_is_the_ports_own_and_no_single_poll) {
  for (const int32_t none : {0, -1}) {
    const pair p;
    std::thread late([&p] {
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
      EXPECT_EQ(send(p.theirs, "x", 1, 0), 1);
    });
    EXPECT_EQ(kWaits[0].run(p, none), 1);
    late.join();
  }
  const stopwatch watch;
  osw_Sleep(0);
  osw_Sleep(-1);
  EXPECT_LT(watch.elapsed(), 100);
}

// The system calls a socket writable when a third of its buffer is empty, which may be megabytes.
TEST(NetsockContract, a_peer_that_reads_slowly_is_not_taken_for_one_that_does_not) {
  pair p(65536);
  std::thread peer([&p] {
    std::vector<char> some(20000);
    while (recv(p.theirs, some.data(), some.size(), 0) > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  const std::string block(1 << 20, 'x');
  const stopwatch watch;
  int32_t sent = 1;
  while (sent > 0 && watch.elapsed() < 2200) {
    sent = tav_netsock_send_timeo(p.ours, block.data(), 1 << 20, 0, 900);
  }
  EXPECT_GT(sent, 0);
  const linger at_once = {1, 0};  // what is under way need not be read
  setsockopt(p.ours, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  EXPECT_EQ(tav_netsock_close(p.ours), 0);
  peer.join();
  p.ours = 0;
}

// In turn the bytes of a reply and blocks of a mail, with looks ahead and commands in between.
TEST(NetsockContract, every_byte_comes_once_and_in_order_up_to_the_end) {
  std::mt19937 random(1);
  std::string sent(400000, ' ');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  pair p;
  std::thread peer([&] {
    for (size_t at = 0; at < sent.size(); at += 10000) send(p.theirs, &sent[at], 10000, 0);
    shutdown(p.theirs, SHUT_WR);
  });
  const size_t sizes[] = {1, 1, 1, 2, 77, 4095, 4096};
  size_t got = 0;
  while (got < sent.size() && !HasFailure()) {
    const size_t size = random() % 50 != 0 ? sizes[random() % 7] : 100000;
    const bool is_look = random() % 4 == 0;
    const std::string text = received(p.ours, size, is_look ? MSG_PEEK : 0);
    EXPECT_FALSE(text.empty()) << got;
    EXPECT_EQ(text, sent.substr(got, text.size())) << got;
    if (!is_look) got += text.size();
    if (random() % 50 == 0) tav_netsock_send_timeo(p.ours, "x", 1, 0, 1000);
  }
  char byte;
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, &byte, 1, 0, 1000), 0);
  tav_netsock_shutdown(p.ours);
  peer.join();
}

TEST(NetsockContract, flags_mean_what_the_system_means_and_small_writes_are_not_held_back) {
  const pair p;
  int value = 0;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(p.ours, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
  EXPECT_NE(value, 0);
  ASSERT_EQ(send(p.theirs, "12345678", 8, 0), 8);
  EXPECT_EQ(received(p.ours, 5, MSG_WAITALL), "12345");
  EXPECT_EQ(received(p.ours, 1), "6");
  EXPECT_EQ(received(p.ours, 8, MSG_PEEK), "78");
  EXPECT_EQ(received(p.ours, 8), "78");
  char byte;
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, &byte, 1, 0, 20), TAV_NETSOCK_TIMEOUT);
}

TEST(NetsockContract, a_closed_socket_hands_out_nothing_and_the_next_one_knows_nothing_of_it) {
  for (const char* text : {"old bytes", "new bytes"}) {
    pair p;  // of the same number, as a rule
    ASSERT_EQ(send(p.theirs, text, 9, 0), 9);
    EXPECT_EQ(received(p.ours, 2), std::string(text, 2));
    EXPECT_EQ(tav_netsock_close(p.ours), 0);
    char byte;
    EXPECT_EQ(tav_netsock_recv_timeo(p.ours, &byte, 1, 0, 100), TAV_NETSOCK_ERROR);
    EXPECT_EQ(tav_netsock_send_timeo(p.ours, &byte, 1, 0, 100), TAV_NETSOCK_ERROR);
    p.ours = 0;
  }
}

// A device may hand over a socket that it has made by itself: nothing is kept for it.
TEST(NetsockContract, a_socket_of_others_is_left_as_it_is_and_a_lost_peer_raises_no_signal) {
  std::signal(SIGPIPE, SIG_DFL);
  for (const int mode : {0, int{SOCK_NONBLOCK}}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | mode, 0, ends), 0);
    char bytes[8] = {};
    EXPECT_EQ(tav_netsock_recv_timeo(ends[0], bytes, 8, 0, 50), TAV_NETSOCK_TIMEOUT);
    EXPECT_EQ(tav_netsock_send_timeo(ends[1], "abc", 3, 0, 1000), 3);
    EXPECT_EQ(tav_netsock_recv_timeo(ends[0], bytes, 1, 0, 1000), 1);
    EXPECT_EQ(recv(ends[0], bytes + 1, 7, 0), 2);
    EXPECT_STREQ(bytes, "abc");
    const std::string much(1 << 20, 'x');
    int32_t sent = 1;
    while (sent > 0) sent = tav_netsock_send_timeo(ends[1], much.data(), 1 << 20, 0, 50);
    EXPECT_EQ(sent, TAV_NETSOCK_TIMEOUT);
    close(ends[0]);
    EXPECT_EQ(tav_netsock_send_timeo(ends[1], "x", 1, 0, 50), TAV_NETSOCK_ERROR);
    close(ends[1]);
  }
}

TEST(NetsockContract, resolves_literals_and_refuses_short_scopes) {
  tav_netsock_addrinfo hints{};
  hints.socket_type = TAV_NETSOCK_STREAM;
  tav_netsock_addrinfo* list = nullptr;
  ASSERT_EQ(tav_netsock_getaddrinfo("2001:db8::7", nullptr, &hints, &list), 0);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->family, TAV_NETSOCK_INET6);
  EXPECT_EQ(list->addr_len, 28);
  EXPECT_EQ(static_cast<const tav_netsock_sockaddr_in6*>(list->addr)->addr[15], 7);
  EXPECT_EQ(list->next, nullptr);
  tav_netsock_freeaddrinfo(list);
  tav_netsock_freeaddrinfo(nullptr);
  tav_netsock_sockaddr_in address{};
  EXPECT_NE(tav_netsock_set_scope(&address, sizeof address), 0);
}

}  // namespace
