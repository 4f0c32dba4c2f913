// fake_platform.h - the device's sockets, TLS and settings for tests, in one process and without a
// network. The library under test calls it by linking: these are the functions of tav_netsock.h,
// tlsw.h, cfg_group.h and osw_Sleep.
//
//   mailhost::mail_host host;
//   fake_platform net;
//   net.resolve("mail.example", {"fe80::1", "192.0.2.1"});
//   host_door door(host, mailhost::protocol::smtp);  // host_peer.h
//   net.serve("192.0.2.1", 25, door);
//   ... the call under test ...
//   EXPECT_EQ(host.connection().in_clear, "EHLO localhost\r\n...");
//   EXPECT_TRUE(net.clean());
//
// Nothing waits: a receive from a peer that is silent times out at once. TLS passes the bytes
// unchanged. One object at a time; the hosts outlive it or at least their last connection.

#ifndef TESTS_SUPPORT_FAKE_PLATFORM_H
#define TESTS_SUPPORT_FAKE_PLATFORM_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cfg_group.h"

namespace tav_test {

struct peer_action {
  enum kind_type { send, start_tls, close };
  kind_type kind;
  std::string bytes = {};  // of send
};

// The server's side of one connection. It is told what happens and queues what it wants done; one
// that queues nothing is silent.
class mail_peer {
 public:
  virtual ~mail_peer() = default;
  // The connection stands; with `tls` the handshake is already done (implicit TLS).
  virtual void connected(bool tls) = 0;
  virtual void received(std::string_view bytes) = 0;
  // The handshake asked for by start_tls is done.
  virtual void tls_started() = 0;
  // The client is gone.
  virtual void closed() {}

  std::deque<peer_action> actions;  // oldest first
};

// Makes a peer for each connection. Outlives them.
class mail_host {
 public:
  virtual ~mail_host() = default;
  virtual std::unique_ptr<mail_peer> accept() = 0;
};

enum class tls_mode { plain, implicit };

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
  bearer,  // only counted where bear() is linked
};

class fake_platform {
 public:
  static constexpr size_t unlimited = std::numeric_limits<size_t>::max();

  fake_platform();
  ~fake_platform();
  fake_platform(const fake_platform&) = delete;
  fake_platform& operator=(const fake_platform&) = delete;

  // The answer for a name, in this order. A name that was not set up fails, an address literal
  // resolves to itself.
  void resolve(const std::string& name, const std::vector<std::string>& addresses);

  // Who answers at an address, or how a connect to it fails; it is refused (-1) without either.
  void serve(const std::string& address, uint16_t port, mail_host& host,
             tls_mode mode = tls_mode::plain);
  void refuse(const std::string& address, uint16_t port, int32_t result);

  // The nth call of a kind (from 1, counted from the construction), or with `all_from` that and all
  // later ones, gives `result` and does nothing else.
  void fail(net_call kind, size_t nth, int32_t result, bool all_from = false);

  // The same over all kinds of calls together, with the result that is natural for each; 0 fails
  // none and only counts.
  enum class outcome { error, timeout };
  void fail_any(size_t nth, outcome how = outcome::error, bool all_from = false);
  void fail_any_from(size_t nth, outcome how) { fail_any(nth, how, true); }
  size_t any_calls() const;  // counted from the latest of these

  void never_fail();

  // One call moves at most so many bytes. A send limit of 0 moves nothing and says so.
  void send_limit(size_t bytes);
  void recv_limit(size_t bytes);

  // A receive that brings bytes takes so long; it must be less than the time-outs.
  void drip(int32_t milliseconds);

  // The access tokens of tav_bearer.h: the first, and the one after its refusal; "" for none. A
  // program that does not call this lacks the function, as a device without tokens does.
  void bear(const std::string& token, const std::string& refreshed);

  void device_settings(const CFG_EVENT_MAIL& record, int32_t result = CFG_OK);

  // Calls of these kinds, and sleeps, as text: "resolve mail.example", "socket", "send 12",
  // "connect 192.0.2.1:25", "connect [2001:db8::1]:25", "tls_connect 0 1 0 0 0" with the option
  // bytes, "close", "sleep 300". What is not a plain success has its result behind it: "connect
  // 192.0.2.1:25 = -2". Receives are not written down.
  std::vector<std::string> calls(const std::set<net_call>& kinds) const;
  // The time-outs that calls of a kind were given.
  std::set<int64_t> timeouts(net_call kind) const;
  // Milliseconds that the calls so far would have taken on a device: the time-outs that ran out,
  // sleeps and dripping receives.
  int64_t clock() const;

  // What is still open: one line for each kind of socket, TLS context, session, resolver answer.
  std::string leaks() const;
  // No leaks, and nothing that the caller did wrong: use after close, bytes in clear while TLS is
  // active, a socket closed before its TLS was ended, ... Writes them to the error output
  // otherwise.
  bool clean() const;

 private:
  std::unique_ptr<fake_net> m_net;
};

}  // namespace tav_test

#endif
