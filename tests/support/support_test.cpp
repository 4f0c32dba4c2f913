// support_test.cpp - the fakes must be trusted before what is tested with them.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <new>
#include <thread>

#include "fail_new.h"
#include "fake_memory.h"
#include "fake_platform.h"
#include "log_capture.h"
#include "osw.h"
#include "smtp_host.h"
#include "tav_dbglog.h"
#include "tav_netsock.h"
#include "tlsw.h"
#include "utl_os.h"

namespace tav_test {
namespace {

using lines = std::vector<std::string>;

// --- fake_platform -------------------------------------------------------------------------------

struct client {
  int32_t sock = 0;
  uint32_t context = 0;
  uint32_t session = 0;

  int32_t connect(const char* name, uint16_t port) {
    tav_netsock_addrinfo* list = nullptr;
    if (tav_netsock_getaddrinfo(name, nullptr, nullptr, &list) != 0 || !list) return -100;
    unsigned char addr[28];
    std::memcpy(addr, list->addr, static_cast<size_t>(list->addr_len));
    const unsigned char network_port[2] = {static_cast<unsigned char>(port >> 8),
                                           static_cast<unsigned char>(port & 0xff)};
    std::memcpy(addr + 2, network_port, 2);
    sock = tav_netsock_socket(list->family, TAV_NETSOCK_STREAM, 0);
    if (addr[8] == 0xfe && list->family == TAV_NETSOCK_INET6) tav_netsock_set_scope(addr, 28);
    const int32_t result = tav_netsock_connect_timeo(sock, addr, list->addr_len, 5000);
    tav_netsock_freeaddrinfo(list);
    return result;
  }
  int32_t say(const std::string& text) {
    const auto len = static_cast<int32_t>(text.size());
    int32_t count = 0;
    if (session == 0) return tav_netsock_send_timeo(sock, text.data(), len, 0, 6000);
    const int32_t result = tlsw_write_timeo(session, text.data(), len, 6000, &count);
    return result == TLSW_OK ? count : result;
  }
  // Everything there is to hear; the result that ended it goes to `last`.
  std::string hear(int32_t* last = nullptr) {
    std::string text;
    char c = 0;
    int32_t result = 0;
    for (;; text += c) {
      int32_t count = 0;
      if (session == 0) {
        result = count = tav_netsock_recv_timeo(sock, &c, 1, 0, 7000);
      } else {
        result = tlsw_read_timeo(session, &c, 1, 7000, &count);
      }
      if (count <= 0) break;
    }
    if (last) *last = result;
    return text;
  }
  int32_t start_tls() {
    TLSW_CONNECT_PARAM param = {sock, 8000, {1, 2, 3, 4, 5}, {}};
    tlsw_init(&context);
    return tlsw_connect_timeo(context, &param, &session);
  }
  void end_tls() {
    if (session) tlsw_shutdown(session);
    if (context) tlsw_term(context);
    session = context = 0;
  }
  void close() {
    tav_netsock_shutdown(sock);
    tav_netsock_close(sock);
  }
};

TEST(FakePlatform, carries_a_session_with_starttls) {
  fake_platform net;
  smtp_host host;
  host.capabilities({"STARTTLS"});
  net.resolve("mail.example", {"2001:db8::1", "192.0.2.1"});
  net.serve("2001:db8::1", 25, host);
  client c;
  ASSERT_EQ(c.connect("mail.example", 25), 0);
  int32_t last = 0;
  EXPECT_EQ(c.hear(&last), "220 mail.example ESMTP\r\n");
  EXPECT_EQ(last, TAV_NETSOCK_TIMEOUT);
  c.say("EHLO me\r\nSTARTTLS\r\n");
  c.hear();
  ASSERT_EQ(c.start_tls(), TLSW_OK);
  c.say("EHLO me\r\n");
  EXPECT_EQ(c.hear(&last), "250 mail.example\r\n");
  EXPECT_EQ(last, TLSW_ERR_TIMEOUT);
  c.say("QUIT\r\n");
  c.hear(&last);
  EXPECT_EQ(last, TLSW_OK);
  c.end_tls();
  c.close();
  osw_Sleep(300);

  EXPECT_TRUE(net.clean());
  EXPECT_EQ(host.client_bytes_in_clear(), "EHLO me\r\nSTARTTLS\r\n");
  EXPECT_EQ(host.client_bytes_under_tls(), "EHLO me\r\nQUIT\r\n");
  EXPECT_TRUE(host.closed_by_client());
  EXPECT_EQ(net.calls(), (lines{"resolve mail.example",
                                "socket",
                                "connect [2001:db8::1]:25",
                                "recv 24",
                                "recv = -2",
                                "send 19",
                                "recv 62",
                                "recv = -2",
                                "tls_init",
                                "tls_connect",
                                "tls_write 9",
                                "tls_read 18",
                                "tls_read = 0x72010006",
                                "tls_write 6",
                                "tls_read 15",
                                "tls_read = 0",
                                "tls_shutdown",
                                "tls_term",
                                "shutdown",
                                "close",
                                "sleep 300"}));
  EXPECT_EQ(net.timeouts(net_call::connect), std::set<int64_t>{5000});
  EXPECT_EQ(net.timeouts(net_call::tls_connect), std::set<int64_t>{8000});
  EXPECT_EQ(net.sleeps(), std::vector<int32_t>{300});
  ASSERT_EQ(net.tls_records().size(), 1u);
  EXPECT_EQ(net.tls_records()[0][12], 5);
}

TEST(FakePlatform, greets_under_implicit_tls) {
  fake_platform net;
  smtp_host host;
  net.serve("127.0.0.1", 465, host, tls_mode::implicit);
  client c;
  ASSERT_EQ(c.connect("127.0.0.1", 465), 0);
  EXPECT_EQ(c.hear(), "");
  ASSERT_EQ(c.start_tls(), TLSW_OK);
  EXPECT_EQ(c.hear(), "220 mail.example ESMTP\r\n");
  c.end_tls();
  c.close();

  client in_clear;
  ASSERT_EQ(in_clear.connect("127.0.0.1", 465), 0);
  in_clear.say("EHLO me\r\n");
  int32_t last = -9;
  EXPECT_EQ(in_clear.hear(&last), "");
  EXPECT_EQ(last, 0);  // the server gave up
  in_clear.close();
  EXPECT_EQ(host.client_bytes(2), "");
  EXPECT_TRUE(net.clean());
}

TEST(FakePlatform, refuses_a_handshake_behind_bytes_in_clear) {
  fake_platform net;
  smtp_host host;
  host.capabilities({"STARTTLS"});
  host.reply_to("STARTTLS", 1, "220 go\r\n250 injected\r\n");
  net.serve("127.0.0.1", 25, host);
  client c;
  c.connect("127.0.0.1", 25);
  c.hear();
  c.say("STARTTLS\r\n");
  char line[8];
  EXPECT_EQ(tav_netsock_recv_timeo(c.sock, line, 8, 0, 1), 8);
  EXPECT_EQ(c.start_tls(), TLSW_ERR_CONNECT);
  c.end_tls();
  c.close();
  EXPECT_TRUE(net.clean());
}

TEST(FakePlatform, answers_connects_as_told) {
  fake_platform net;
  net.connect_result("192.0.2.1", 25, TAV_NETSOCK_TIMEOUT);
  net.resolve("linked", {"fe80::1"});
  net.resolve("empty", {});
  net.connect_result("fe80::1", 25, 0);
  const std::pair<const char*, int32_t> cases[] = {
      {"192.0.2.1", -2}, {"192.0.2.2", -1}, {"linked", 0}, {"empty", -100}, {"unknown", -100}};
  for (const auto& [name, result] : cases) {
    client c;
    EXPECT_EQ(c.connect(name, 25), result) << name;
    if (c.sock) c.close();
  }
  EXPECT_TRUE(net.clean());
}

TEST(FakePlatform, fails_and_limits_calls_on_demand) {
  fake_platform net;
  smtp_host host;
  net.serve("127.0.0.1", 25, host);
  net.fail(net_call::send, 2, TAV_NETSOCK_TIMEOUT);
  net.fail_from(net_call::send, 4, TAV_NETSOCK_ERROR);
  client c;
  c.connect("127.0.0.1", 25);
  net.send_limit(4);
  EXPECT_EQ(c.say("NOOP\r\n"), 4);
  EXPECT_EQ(c.say("\r\n"), TAV_NETSOCK_TIMEOUT);
  EXPECT_EQ(c.say("\r\n"), 2);
  EXPECT_EQ(c.say("NOOP\r\n"), TAV_NETSOCK_ERROR);
  EXPECT_EQ(c.say("NOOP\r\n"), TAV_NETSOCK_ERROR);
  net.never_fail();
  net.send_limit(0);
  EXPECT_EQ(c.say("x"), 0);
  net.recv_limit(3);
  char data[10];
  EXPECT_EQ(tav_netsock_recv_timeo(c.sock, data, 10, 0, 1), 3);
  EXPECT_EQ(host.client_bytes(), "NOOP\r\n");
  c.close();

  net.fail_any(3);
  client d;
  EXPECT_EQ(d.connect("127.0.0.1", 25), TAV_NETSOCK_ERROR);
  EXPECT_EQ(net.any_calls(), 3u);
  d.close();
  EXPECT_TRUE(net.clean());
}

TEST(FakePlatform, tells_what_its_caller_does_wrong) {
  const struct {
    const char* problem;
    std::function<void(client&)> misdeed;
  } cases[] = {
      {"socket 3 is still open", [](client&) {}},
      {"after it was closed",
       [](client& c) {
         c.close();
         c.say("x");
       }},
      {"close on socket 3 after it was closed",
       [](client& c) {
         c.close();
         c.close();
       }},
      {"in clear while TLS is active",
       [](client& c) {
         c.start_tls();
         c.session = 0;
         c.say("x");
       }},
      {"before its TLS was ended",
       [](client& c) {
         c.start_tls();
         c.close();
       }},
      {"TLS context 4097 is still open", [](client& c) { c.start_tls(); }},
      {"which is not active",
       [](client& c) {
         c.start_tls();
         auto old = c;
         c.end_tls();
         c.close();
         old.say("x");
       }},
      {"not shut down",
       [](client& c) {
         c.start_tls();
         tlsw_term(c.context);
         c.close();
       }},
      {"which is none",
       [](client& c) {
         c.close();
         tlsw_term(99);
       }},
      {"not connected",
       [](client& c) {
         c.close();
         c.sock = tav_netsock_socket(2, 1, 0);
         c.hear();
       }},
      {"after shutdown",
       [](client& c) {
         tav_netsock_shutdown(c.sock);
         c.say("x");
       }},
  };
  for (const auto& c : cases) {
    smtp_host host;
    fake_platform net;
    net.serve("127.0.0.1", 465, host, tls_mode::implicit);
    client peer;
    ASSERT_EQ(peer.connect("127.0.0.1", 465), 0);
    c.misdeed(peer);
    EXPECT_NE(net.problems().find(c.problem), std::string::npos) << c.problem << "\n"
                                                                 << net.problems();
  }
}

// --- fake_memory, failing_new, log_capture -------------------------------------------------------

TEST(FakeMemory, sees_leaks_overruns_and_wrong_frees) {
  fake_memory memory;
  auto* const block = static_cast<unsigned char*>(UtlOS::MemAllocate(5));
  EXPECT_EQ(block[4], 0xA5);
  EXPECT_NE(memory.problems().find("leak of block"), std::string::npos);
  EXPECT_EQ(memory.live_bytes(), 5u);
  block[0] = 1;
  auto* const moved = static_cast<unsigned char*>(UtlOS::MemReallocate(block, 9));
  EXPECT_NE(moved, block);
  EXPECT_EQ(moved[0], 1);
  EXPECT_EQ(moved[8], 0xA5);
  void* const other = osw_SubAllocMem(0);
  EXPECT_NE(other, nullptr);
  osw_OrgFreeMemPart(0, other);
  EXPECT_EQ(memory.allocations(), 3u);
  unsigned char* volatile end = moved + 9;  // volatile: compilers know that this is wrong
  *end = 0;
  UtlOS::MemFree(moved);
  int local = 0;
  UtlOS::MemFree(&local);
  EXPECT_NE(memory.problems().find("overrun of block"), std::string::npos);
  EXPECT_NE(memory.problems().find("not a live block"), std::string::npos);
  EXPECT_EQ(memory.live_blocks(), 0u);
}

TEST(FakeMemory, fails_on_demand) {
  fake_memory memory;
  memory.fail(2);
  void* const first = UtlOS::MemAllocate(1);
  EXPECT_FALSE(memory.failed());
  EXPECT_EQ(UtlOS::MemReallocate(first, 2), nullptr);  // and keeps the block
  EXPECT_TRUE(memory.failed());
  UtlOS::MemFree(first);
  memory.fail_from(1);
  EXPECT_EQ(UtlOS::MemAllocate(1), nullptr);
  EXPECT_EQ(UtlOS::CreateMutex(), nullptr);
  memory.never_fail();
  EXPECT_EQ(UtlOS::MemAllocate(SIZE_MAX), nullptr);
  EXPECT_TRUE(memory.clean());
}

TEST(FakeMemory, mutexes_keep_their_contract) {
  fake_memory memory;
  UtlMutex* const mutex = UtlOS::CreateMutex();
  EXPECT_EQ(UtlOS::TakeMutex(mutex), 1);
  EXPECT_EQ(UtlOS::TakeMutex(mutex), 1);
  EXPECT_EQ(memory.mutexes().at(0).takes, 2u);
  std::atomic<int> stranger{-1}, waiter{-1};
  std::thread([&] { stranger = UtlOS::GiveMutex(mutex); }).join();
  EXPECT_EQ(stranger, 0);
  std::thread second([&] {
    waiter = UtlOS::TakeMutex(mutex);
    UtlOS::GiveMutex(mutex);
  });
  while (memory.mutexes().at(0).waiters == 0) std::this_thread::yield();
  EXPECT_TRUE(memory.any_mutex_held());
  EXPECT_EQ(UtlOS::GiveMutex(mutex), 1);
  second.join();
  EXPECT_EQ(waiter, 1);
  EXPECT_FALSE(memory.any_mutex_held());
  EXPECT_EQ(UtlOS::GiveMutex(mutex), 0);
  UtlOS::TakeMutex(mutex);
  UtlOS::DeleteMutex(mutex);
  EXPECT_TRUE(memory.clean());
}

TEST(FailingNew, fails_in_its_scope_only) {
  if (!failing_new::works()) GTEST_SKIP() << "operator new is the sanitizer's";
  fake_platform net;
  bool threw = false;
  size_t calls = 0;
  {
    failing_new failure(2);
    ::operator delete(::operator new(4));  // not a new-expression, which may be optimised away
    osw_Sleep(1);                          // the fake's own memory does not count
    try {
      ::operator delete[](::operator new[](4));
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    calls = failure.calls();
  }
  EXPECT_TRUE(threw);
  EXPECT_EQ(calls, 2u);
  EXPECT_EQ(net.sleeps().size(), 1u);
}

TEST(LogCapture, collects_lines) {
  tav_dbglog* const log = tav_dbglog_common::get_instance();
  {
    log_capture capture;
    log->tracer("TAV_EML", 0, "first %d\n", 1);
    log->tracer("TAV_EML", 4, "second\n");
    EXPECT_TRUE(capture.contains("first 1"));
    EXPECT_EQ(capture.lines().at(1).level, 4);
    EXPECT_EQ(capture.texts(), (lines{"first 1", "second"}));
    capture.clear();
    EXPECT_EQ(capture.count(""), 0u);
  }
  log->tracer("TAV_EML", 0, "nobody listens\n");
}

}  // namespace
}  // namespace tav_test
