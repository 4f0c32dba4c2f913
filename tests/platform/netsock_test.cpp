#include <fcntl.h>
#include <gtest/gtest.h>

#include <random>

#include "socket_fixture.h"

namespace {

using namespace contract;

TEST(NetsockContract, a_call_without_a_socket_fails_and_the_next_one_knows_nothing_of_the_last) {
  const tav_netsock_sockaddr_in address{};
  for (const std::string text : {"old bytes", "new bytes"}) {
    pair p;  // of the same number, as a rule
    char bytes[9];
    ASSERT_EQ(send(p.theirs, text.data(), 9, 0), 9);
    EXPECT_EQ(tav_netsock_recv_timeo(p.ours, bytes, 2, 0, 1000), 2);
    EXPECT_EQ(std::string(bytes, 2), text.substr(0, 2));
    const int32_t closed = p.ours;
    p.close_ours();
    for (const int32_t none : {0, -1, closed}) {
      EXPECT_EQ(tav_netsock_connect_timeo(none, &address, sizeof address, 100), -1);
      EXPECT_EQ(tav_netsock_send_timeo(none, bytes, 1, 0, 100), -1);
      EXPECT_EQ(receive_byte(none, 100), -1);
      EXPECT_EQ(tav_netsock_shutdown(none), -1);
      EXPECT_EQ(tav_netsock_close(none), -1);
    }
  }
}

TEST(NetsockContract, handle_0_is_never_a_socket) {
  const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
  close(0);
  const int32_t sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
  EXPECT_GT(sock, 0);
  EXPECT_EQ(tav_netsock_close(sock), 0);
  dup2(saved, 0);
  close(saved);
}

TEST(NetsockContract, a_wait_ends_at_its_time_and_no_signal_shortens_it) {
  expect_timely(kSocketWaits);
}

TEST(NetsockContract, no_limit_is_the_ports_own_of_30_s) { expect_own_limit(kSocketWaits); }

// The system calls a socket writable when a third of its buffer is empty, which may be megabytes.
TEST(NetsockContract, a_peer_that_reads_slowly_is_not_taken_for_one_that_does_not) {
  pair p(65536);
  std::thread peer([&p] {
    std::vector<char> some(20000);
    while (recv(p.theirs, some.data(), some.size(), 0) > 0) pause(50);
  });
  const std::string block(1 << 20, 'x');
  const stopwatch watch;
  int32_t sent = 1;
  while (sent > 0 && watch.elapsed() < 2200) {
    sent = tav_netsock_send_timeo(p.ours, block.data(), 1 << 20, 0, 900);
  }
  EXPECT_GT(sent, 0);
  shutdown(p.theirs, SHUT_RDWR);  // what is under way need not be read
  p.close_ours();
  peer.join();
}

// In turn the bytes of a reply and blocks of a mail, with commands in between.
TEST(NetsockContract, every_byte_comes_once_and_in_order_up_to_the_end) {
  std::mt19937 random(1);
  std::string sent(400000, ' ');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  const pair p;
  std::thread peer([&] {
    for (size_t at = 0; at < sent.size(); at += 10000) send(p.theirs, &sent[at], 10000, 0);
    shutdown(p.theirs, SHUT_WR);
  });
  const size_t sizes[] = {1, 1, 1, 2, 77, 4095, 4096};
  std::string got;
  for (int32_t count = 1; count > 0;) {
    std::string text(random() % 50 != 0 ? sizes[random() % 7] : 100000, '#');
    const auto size = static_cast<int32_t>(text.size());
    count = tav_netsock_recv_timeo(p.ours, text.data(), size, 0, 1000);
    got += text.substr(0, static_cast<size_t>(std::max(count, 0)));
    if (random() % 50 == 0) tav_netsock_send_timeo(p.ours, "x", 1, 0, 1000);
  }
  EXPECT_TRUE(got == sent) << got.size();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(receive_byte(p.ours, 1000), 0);
  tav_netsock_shutdown(p.ours);
  peer.join();
}

TEST(NetsockContract, small_writes_are_not_held_back) {
  const pair p;
  int late = 0;
  for (int i = 0; i < 10; ++i) {
    const int no = 0;  // what comes is acknowledged after 40 ms only
    setsockopt(p.theirs, IPPROTO_TCP, TCP_QUICKACK, &no, sizeof no);
    for (int k = 0; k < 2; ++k) EXPECT_EQ(tav_netsock_send_timeo(p.ours, "x", 1, 0, 1000), 1);
    pause(5);
    char bytes[2];
    late += recv(p.theirs, bytes, 2, MSG_PEEK) < 2 ? 1 : 0;
    recv(p.theirs, bytes, 2, MSG_WAITALL);
  }
  EXPECT_LT(late, 5);
}

TEST(NetsockContract, a_lost_peer_is_an_error_and_no_end_and_raises_no_signal) {
  for (const bool is_reset : {true, false}) {
    pair p;
    p.close_theirs(is_reset);
    EXPECT_EQ(receive_byte(p.ours, 1000), is_reset ? TAV_NETSOCK_ERROR : 0);
    EXPECT_EQ(fill(p.ours, 1000), TAV_NETSOCK_ERROR);
    EXPECT_EQ(tav_netsock_send_timeo(p.ours, "x", 1, 0, 1000), TAV_NETSOCK_ERROR);
    EXPECT_EQ(tav_netsock_shutdown(p.ours), 0);
  }
}

TEST(NetsockContract, names_and_addresses) {
  const uint16_t gone = pair().port;
  EXPECT_EQ(connect_to(gone), TAV_NETSOCK_ERROR);
  EXPECT_NE(resolve("no-such-name.invalid"), 0);
  tav_netsock_addrinfo hints{};
  hints.socket_type = TAV_NETSOCK_STREAM;
  tav_netsock_addrinfo* list = nullptr;
  ASSERT_EQ(tav_netsock_getaddrinfo("2001:db8::7", nullptr, &hints, &list), 0);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->family, TAV_NETSOCK_INET6);
  EXPECT_EQ(list->addr_len, 28);
  const auto& found = *static_cast<const tav_netsock_sockaddr_in6*>(list->addr);
  EXPECT_EQ(found.family, TAV_NETSOCK_INET6);
  EXPECT_EQ(found.port, 0);
  EXPECT_EQ(found.addr[15], 7);
  EXPECT_EQ(list->next, nullptr);
  tav_netsock_freeaddrinfo(list);
  tav_netsock_freeaddrinfo(nullptr);
  hints.family = TAV_NETSOCK_INET;
  EXPECT_NE(tav_netsock_getaddrinfo("2001:db8::7", nullptr, &hints, &list), 0);
  tav_netsock_sockaddr_in address{};
  EXPECT_NE(tav_netsock_set_scope(&address, sizeof address), 0);
}

}  // namespace
