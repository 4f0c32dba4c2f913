// fake_platform.h - the device's sockets, TLS and settings for tests, in one process and without a
// network. The library under test calls it by linking: these are the functions of tav_netsock.h,
// tlsw.h, cfg_group.h and osw_Sleep.
//
//   mailhost::mail_host host;
//   host_door door(host, mailhost::protocol::smtp);  // host_peer.h
//   fake_platform net;
//   net.resolve("mail.example", {"fe80::1", "192.0.2.1"});
//   net.serve("192.0.2.1", 25, door);
//   ... the call under test ...
//   EXPECT_EQ(host.connection().in_clear, "EHLO localhost\r\n...");
//   EXPECT_TRUE(net.clean());
//
// Nothing waits: a receive from a peer that is silent times out at once. TLS passes the bytes
// unchanged. One object at a time; the hosts outlive it or at least their last connection.

#ifndef TESTS_SUPPORT_FAKE_PLATFORM_H
#define TESTS_SUPPORT_FAKE_PLATFORM_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cfg_group.h"
#include "mail_peer.h"

namespace tav_test {

struct fake_net;

enum class net_call {
  resolve,
  socket,
  set_scope,
  connect,
  send,
  recv,
  shutdown,
  close,
  tls_init,
  tls_connect,
  tls_read,
  tls_write,
  tls_shutdown,
  tls_term,
};

class fake_platform {
 public:
  static constexpr size_t unlimited = std::numeric_limits<size_t>::max();

  fake_platform();
  ~fake_platform();
  fake_platform(const fake_platform&) = delete;
  fake_platform& operator=(const fake_platform&) = delete;

  // The answer for a name, in this order; an empty one is a success without an address. A name
  // that was not set up fails, an address literal resolves to itself.
  void resolve(const std::string& name, const std::vector<std::string>& addresses);

  // Who answers at an address. Where nobody does, a connect is refused (-1).
  void serve(const std::string& address, uint16_t port, mail_host& host,
             tls_mode mode = tls_mode::plain);
  void connect_result(const std::string& address, uint16_t port, int32_t result);

  // The nth call of a kind (from 1, counted from the construction) gives `result` and does nothing
  // else; fail_from: that and all later ones. A result that is not a failure moves 0 bytes.
  void fail(net_call kind, size_t nth, int32_t result);
  void fail_from(net_call kind, size_t nth, int32_t result);

  // The same over all kinds of calls together, with the result that is natural for each; 0 fails
  // none and only counts.
  enum class outcome { error, timeout };
  void fail_any(size_t nth, outcome how = outcome::error);
  void fail_any_from(size_t nth, outcome how = outcome::error);
  size_t any_calls() const;  // counted from the latest fail_any or fail_any_from

  void never_fail();

  // One call moves at most so many bytes. A send limit of 0 moves nothing and says so.
  void send_limit(size_t bytes);
  void recv_limit(size_t bytes);

  // A receive that brings bytes takes so long; it must be less than the time-outs.
  void drip(int32_t milliseconds);

  void device_settings(const CFG_EVENT_MAIL& record, int32_t result = CFG_OK);

  // Calls of these kinds, and sleeps, as text: "resolve mail.example", "socket", "send 12",
  // "connect 192.0.2.1:25", "connect [2001:db8::1]:25", "close", "sleep 300". What is not a plain
  // success has its result behind it: "connect 192.0.2.1:25 = -2". Receives are not written down.
  std::vector<std::string> calls(const std::set<net_call>& kinds) const;
  // The time-outs that calls of a kind were given.
  std::set<int64_t> timeouts(net_call kind) const;
  // The records that were handed to tlsw_connect_timeo.
  std::vector<std::array<uint8_t, 16>> tls_records() const;
  std::vector<int32_t> sleeps() const;
  // Sends and receives so far.
  size_t transfers() const;
  // Milliseconds that the calls so far would have taken on a device: the time-outs that ran out,
  // sleeps and dripping receives.
  int64_t clock() const;

  // What is still open: one line for each socket, TLS context, session and resolver answer.
  std::string leaks() const;
  // Leaks and everything that the caller did wrong, one per line: use after close, bytes in clear
  // while TLS is active, a socket closed before its TLS was ended, ...
  std::string problems() const;
  // problems() is "". Writes them to the error output otherwise.
  bool clean() const;

 private:
  std::unique_ptr<fake_net> m_net;
};

}  // namespace tav_test

#endif
