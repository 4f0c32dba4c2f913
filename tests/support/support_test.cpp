// support_test.cpp - what the doubles must see: a double that looks away passes every test.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <new>

#include "fail_new.h"
#include "fake_memory.h"
#include "fake_platform.h"
#include "osw.h"
#include "smtp_host.h"
#include "tav_netsock.h"
#include "tlsw.h"
#include "utl_os.h"

namespace tav_test {
namespace {

// Calls the platform directly, with mistakes that the library must not make.
struct client {
  int32_t sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
  uint32_t context = 0;
  uint32_t session = 0;

  int32_t connect(uint16_t port) {
    tav_netsock_sockaddr_in address = {};
    address.family = TAV_NETSOCK_INET;
    const unsigned char network_port[] = {static_cast<unsigned char>(port >> 8),
                                          static_cast<unsigned char>(port & 0xff)};
    std::memcpy(&address.port, network_port, sizeof network_port);
    const unsigned char loopback[] = {127, 0, 0, 1};
    std::memcpy(address.addr, loopback, sizeof loopback);
    return tav_netsock_connect_timeo(sock, &address, sizeof address, 5000);
  }
  void say(const std::string& text) {
    const auto len = static_cast<int32_t>(text.size());
    int32_t count = 0;
    if (session == 0)
      tav_netsock_send_timeo(sock, text.data(), len, 0, 6000);
    else
      tlsw_write_timeo(session, text.data(), len, 6000, &count);
  }
  int32_t hear() {
    char bytes[100];
    return tav_netsock_recv_timeo(sock, bytes, sizeof bytes, 0, 7000);
  }
  int32_t start_tls() {
    const TLSW_CONNECT_PARAM param = {sock, 8000, {1, 2, 3, 4, 5}, {}};
    tlsw_init(&context);
    return tlsw_connect_timeo(context, &param, &session);
  }
  void end_tls() {
    tlsw_shutdown(session);
    tlsw_term(context);
  }
  void close() { tav_netsock_close(sock); }
};

TEST(FakePlatform, tells_what_its_caller_does_wrong) {
  const struct {
    const char* problem;
    std::function<void(client&)> misdeed;
  } cases[] = {
      {"socket 3 is still open", [](client&) {}},
      {"send on socket 3 after it was closed",
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
         c.end_tls();
         c.say("x");
       }},
      {"not shut down",
       [](client& c) {
         c.start_tls();
         tlsw_term(c.context);
       }},
      {"which is none", [](client&) { tlsw_term(99); }},
      {"not connected",
       [](client& c) {
         c.sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
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
    ASSERT_EQ(peer.connect(465), 0);
    c.misdeed(peer);
    EXPECT_NE(net.problems().find(c.problem), std::string::npos) << c.problem << "\n"
                                                                 << net.problems();
  }
}

// The tests of injected replies lean on this.
TEST(FakePlatform, refuses_a_handshake_behind_bytes_in_clear) {
  for (const bool injects : {true, false}) {
    smtp_host host;
    fake_platform net;
    host.capabilities({"STARTTLS"});
    host.reply_to("STARTTLS", 1, std::string("220 go\r\n") + (injects ? "250 injected\r\n" : ""));
    net.serve("127.0.0.1", 25, host);
    client c;
    ASSERT_EQ(c.connect(25), 0);
    c.hear();
    c.say("STARTTLS\r\n");
    net.recv_limit(8);
    EXPECT_EQ(c.hear(), 8);
    EXPECT_EQ(c.start_tls(), injects ? TLSW_ERR_CONNECT : TLSW_OK);
  }
}

TEST(FakeMemory, sees_leaks_overruns_and_wrong_frees) {
  fake_memory memory;
  auto* const block = static_cast<unsigned char*>(UtlOS::MemAllocate(5));
  EXPECT_EQ(block[4], 0xA5);
  EXPECT_NE(memory.problems().find("leak of block"), std::string::npos);
  EXPECT_EQ(memory.live_bytes(), 5u);
  auto* const moved = static_cast<unsigned char*>(UtlOS::MemReallocate(block, 9));
  EXPECT_NE(moved, block);
  unsigned char* volatile end = moved + 9;  // volatile: compilers know that this is wrong
  *end = 0;
  UtlOS::MemFree(moved);
  int local = 0;
  UtlOS::MemFree(&local);
  EXPECT_NE(memory.problems().find("overrun of block"), std::string::npos);
  EXPECT_NE(memory.problems().find("not a live block"), std::string::npos);
  EXPECT_EQ(memory.live_bytes(), 0u);
}

TEST(FakeMemory, sees_mutexes_that_are_left) {
  fake_memory memory;
  UtlMutex* const mutex = UtlOS::CreateMutex();
  EXPECT_EQ(UtlOS::TakeMutex(mutex), 1);
  EXPECT_EQ(UtlOS::TakeMutex(mutex), 1);
  EXPECT_TRUE(memory.any_mutex_held());
  EXPECT_EQ(UtlOS::GiveMutex(mutex), 1);
  EXPECT_FALSE(memory.any_mutex_held());
  EXPECT_EQ(UtlOS::GiveMutex(mutex), 0);
  EXPECT_NE(memory.problems().find("leak of a mutex"), std::string::npos);
  UtlOS::DeleteMutex(mutex);
  EXPECT_TRUE(memory.clean());
}

// Where it did not work, half of the torture would be skipped without a word.
TEST(FailingNew, fails_in_its_scope_only) {
  if (!failing_new::works()) GTEST_SKIP() << "operator new is the sanitizer's";
  fake_platform net;
  const failing_new failure(2);
  ::operator delete(::operator new(4));  // not a new-expression, which may be optimised away
  osw_Sleep(1);                          // the fake's own memory does not count
  const bool has_failed = ::operator new(4, std::nothrow) == nullptr;
  const size_t calls = failure.calls();
  EXPECT_TRUE(has_failed);
  EXPECT_EQ(calls, 2u);
}

}  // namespace
}  // namespace tav_test
