#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>

#include <csignal>
#include <thread>

#include "socket_fixture.h"

namespace {

using namespace contract;

// A connection with both ends in this process.
struct pair {
  pair() : ours(connect_to("127.0.0.1", server.port())), theirs(server.accept()) {}
  ~pair() {
    tav_netsock_close(ours);
    if (theirs >= 0) close(theirs);
  }
  void close_theirs() {
    close(theirs);
    theirs = -1;
  }
  listener server;
  int32_t ours;
  int theirs;
};

TEST(NetsockContract, a_call_without_a_socket_fails_and_touches_nothing) {
  const auto address = loopback(1);
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

TEST(NetsockContract, connect_tells_refused_from_silent) {
  listener gone;
  const uint16_t port = gone.port();
  gone.stop();
  EXPECT_EQ(connect_to("127.0.0.1", port), TAV_NETSOCK_ERROR);
  EXPECT_NE(connect_to("no-such-name.invalid", port), 0);

  // A listener whose queue is full answers nothing more.
  const int full = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(full, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(full, 0);
  socklen_t length = sizeof address;
  getsockname(full, reinterpret_cast<sockaddr*>(&address), &length);
  std::vector<int32_t> queued;
  int32_t result = 1;
  const stopwatch watch;
  while (queued.size() < 5 && result > 0) {
    result = connect_to("127.0.0.1", ntohs(address.sin_port), 200);
    if (result > 0) queued.push_back(result);
  }
  EXPECT_EQ(result, TAV_NETSOCK_TIMEOUT);
  EXPECT_GE(watch.elapsed(), 200);
  for (const int32_t sock : queued) tav_netsock_close(sock);
  close(full);
}

TEST(NetsockContract, transfers_count_bytes_and_time_out) {
  pair p;
  ASSERT_GT(p.ours, 0);
  EXPECT_EQ(tav_netsock_send_timeo(p.ours, "abc", 3, 0, 1000), 3);
  char buffer[8] = {};
  EXPECT_EQ(recv(p.theirs, buffer, sizeof buffer, 0), 3);
  const stopwatch watch;
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, buffer, 1, 0, 150), TAV_NETSOCK_TIMEOUT);
  EXPECT_GE(watch.elapsed(), 150);
  EXPECT_LT(watch.elapsed(), 1500);

  // Nobody reads: sends move what the system's buffers take and do not wait for more, then time
  // out.
  const std::string block(1 << 20, 'x');
  const stopwatch sending;
  int32_t sent = 1;
  for (int i = 0; i < 1000 && sent > 0; ++i) {
    sent = tav_netsock_send_timeo(p.ours, block.data(), 1 << 20, 0, 400);
  }
  EXPECT_EQ(sent, TAV_NETSOCK_TIMEOUT);
  EXPECT_GE(sending.elapsed(), 400);
  EXPECT_LT(sending.elapsed(), 800);
}

// The system calls a socket writable when a third of its buffer is empty, which may be megabytes.
TEST(NetsockContract, a_peer_that_reads_slowly_is_not_taken_for_one_that_does_not) {
  listener server;
  server.keep_small(65536);
  const int32_t ours = connect_to("127.0.0.1", server.port());
  const int theirs = server.accept();
  std::thread peer([&] {
    std::vector<char> some(20000);
    while (recv(theirs, some.data(), some.size(), 0) > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    close(theirs);
  });
  const std::string block(1 << 20, 'x');
  const stopwatch watch;
  int32_t sent = 1;
  while (sent > 0 && watch.elapsed() < 2200) {
    sent = tav_netsock_send_timeo(ours, block.data(), 1 << 20, 0, 900);
  }
  EXPECT_GT(sent, 0);
  const linger at_once = {1, 0};  // what is under way need not be read
  setsockopt(ours, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  tav_netsock_close(ours);
  peer.join();
}

std::string read_one_by_one(int32_t sock, size_t length) {
  std::string text;
  char byte = 0;
  while (text.size() < length && tav_netsock_recv_timeo(sock, &byte, 1, 0, 1000) == 1) text += byte;
  return text;
}

TEST(NetsockContract, what_was_not_asked_for_comes_next) {
  const std::string sent = "220 hi\r\nBYTES";
  for (size_t asked = 0; asked <= sent.size(); ++asked) {
    pair p;
    ASSERT_EQ(send(p.theirs, sent.data(), sent.size(), 0), 13);
    EXPECT_EQ(read_one_by_one(p.ours, asked), sent.substr(0, asked));
    char buffer[16] = {};
    const auto rest = static_cast<int32_t>(sent.size() - asked);
    for (const int32_t flags : {int32_t{MSG_PEEK}, 0}) {
      EXPECT_EQ(tav_netsock_recv_timeo(p.ours, buffer, 16, flags, rest > 0 ? 1000 : 20),
                rest > 0 ? rest : TAV_NETSOCK_TIMEOUT);
      EXPECT_EQ(buffer, sent.substr(asked));
    }
    EXPECT_EQ(tav_netsock_recv_timeo(p.ours, buffer, 16, 0, 20), TAV_NETSOCK_TIMEOUT);
  }
}

// In turn a reply byte by byte and data block by block, as in a mailbox of many mails.
TEST(NetsockContract, bytes_and_blocks_come_in_order) {
  pair p;
  std::string sent(300000, ' ');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  std::thread peer([&] {
    send(p.theirs, sent.data(), sent.size(), MSG_NOSIGNAL);
    p.close_theirs();
  });
  std::string got;
  std::vector<char> block(100000);
  const int32_t sizes[] = {1, 1, 4095, 1, 100000, 77};
  int32_t count = 1;
  for (size_t i = 0; count > 0; ++i) {
    count = tav_netsock_recv_timeo(p.ours, block.data(), sizes[i % 6], 0, 2000);
    if (count > 0) got.append(block.data(), static_cast<size_t>(count));
  }
  peer.join();
  EXPECT_EQ(count, 0);
  EXPECT_TRUE(got == sent) << got.size();
}

TEST(NetsockContract, bytes_read_one_by_one_come_in_order_up_to_the_end) {
  pair p;
  std::string sent;
  for (int i = 0; i < 3000; ++i) sent += static_cast<char>('a' + i % 23);
  ASSERT_EQ(send(p.theirs, sent.data(), 100, 0), 100);
  EXPECT_EQ(read_one_by_one(p.ours, 60), sent.substr(0, 60));
  ASSERT_EQ(send(p.theirs, sent.data() + 100, 2900, 0), 2900);
  char byte = 0;
  EXPECT_EQ(tav_netsock_send_timeo(p.ours, "x", 1, 0, 1000), 1) << "in between";
  EXPECT_EQ(recv(p.theirs, &byte, 1, 0), 1);
  p.close_theirs();
  EXPECT_EQ(read_one_by_one(p.ours, 2940), sent.substr(60));
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, &byte, 1, 0, 1000), 0);
}

TEST(NetsockContract, flags_mean_what_the_system_means) {
  pair p;
  ASSERT_EQ(send(p.theirs, "12345678", 8, 0), 8);
  char buffer[8] = {};
  const stopwatch watch;
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, buffer, 5, MSG_WAITALL, 2000), 5);
  EXPECT_LT(watch.elapsed(), 1000);
  EXPECT_EQ(read_one_by_one(p.ours, 1), "6");
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, buffer, 8, MSG_PEEK, 1000), 2);
  EXPECT_EQ(read_one_by_one(p.ours, 2), "78");
}

TEST(NetsockContract, a_closed_socket_hands_out_nothing) {
  pair p;
  ASSERT_EQ(send(p.theirs, "bytes", 5, 0), 5);
  EXPECT_EQ(read_one_by_one(p.ours, 2), "by");
  EXPECT_EQ(tav_netsock_close(p.ours), 0);
  char byte;
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, &byte, 1, 0, 100), TAV_NETSOCK_ERROR);
  EXPECT_EQ(tav_netsock_send_timeo(p.ours, &byte, 1, 0, 100), TAV_NETSOCK_ERROR);
}

TEST(NetsockContract, a_new_socket_knows_nothing_of_the_one_before) {
  int32_t before = 0;
  {
    pair p;
    before = p.ours;
    ASSERT_EQ(send(p.theirs, "old bytes", 9, 0), 9);
    EXPECT_EQ(read_one_by_one(p.ours, 2), "ol");
  }
  pair p;
  if (p.ours != before) GTEST_SKIP() << "the handle was not used again";
  ASSERT_EQ(send(p.theirs, "new", 3, 0), 3);
  EXPECT_EQ(read_one_by_one(p.ours, 3), "new");
}

TEST(NetsockContract, end_of_stream_is_0_and_a_lost_peer_raises_no_signal) {
  std::signal(SIGPIPE, SIG_DFL);
  pair p;
  p.close_theirs();
  char byte;
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, &byte, 1, 0, 1000), 0);
  int32_t sent = 1;
  for (int i = 0; i < 20 && sent > 0; ++i) sent = tav_netsock_send_timeo(p.ours, "x", 1, 0, 500);
  EXPECT_EQ(sent, TAV_NETSOCK_ERROR);
  const int32_t ended = tav_netsock_shutdown(p.ours);
  EXPECT_TRUE(ended == 0 || ended == -1);
}

// A device may hand over a socket that it has made by itself: nothing is kept for it.
TEST(NetsockContract, a_socket_of_others_is_left_as_it_is) {
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

TEST(NetsockContract, a_signal_does_not_shorten_a_wait) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART
  pair p;
  const pthread_t self = pthread_self();
  std::thread alarm([self] {
    for (int i = 0; i < 5; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      pthread_kill(self, SIGUSR1);
    }
  });
  char byte;
  const stopwatch watch;
  EXPECT_EQ(tav_netsock_recv_timeo(p.ours, &byte, 1, 0, 300), TAV_NETSOCK_TIMEOUT);
  EXPECT_GE(watch.elapsed(), 300);
  alarm.join();
}

TEST(NetsockContract, small_writes_are_not_held_back) {
  pair p;
  int value = 0;
  socklen_t length = sizeof value;
  ASSERT_EQ(getsockopt(p.ours, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
  EXPECT_NE(value, 0);
}

TEST(NetsockContract, resolves_literals_and_refuses_short_scopes) {
  tav_netsock_addrinfo hints{};
  hints.socket_type = TAV_NETSOCK_STREAM;
  hints.protocol = TAV_NETSOCK_TCP;
  tav_netsock_addrinfo* list = nullptr;
  ASSERT_EQ(tav_netsock_getaddrinfo("2001:db8::7", nullptr, &hints, &list), 0);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->family, TAV_NETSOCK_INET6);
  EXPECT_EQ(list->addr_len, 28);
  EXPECT_EQ(static_cast<const tav_netsock_sockaddr_in6*>(list->addr)->addr[15], 7);
  EXPECT_EQ(list->next, nullptr);
  tav_netsock_freeaddrinfo(list);
  tav_netsock_freeaddrinfo(nullptr);
  auto address = loopback(1);
  EXPECT_NE(tav_netsock_set_scope(&address, sizeof address), 0);
}

}  // namespace
