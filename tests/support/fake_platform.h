// fake_platform.h - the device's sockets, TLS and settings for tests, in one process and without a
// network. The library under test calls it by linking: these are the functions of tav_netsock.h,
// tlsw.h, cfg_group.h and osw_Sleep. The other side is the practice mail server.
//
//   mailhost::mail_host host;
//   fake_platform net;
//   net.names["mail.example"] = {"fe80::1", "192.0.2.1"};
//   net.serve("192.0.2.1", host);
//   ... the call under test ...
//   EXPECT_EQ(host.connection().in_clear, "EHLO localhost\r\n...");
//   EXPECT_TRUE(net.clean());
//
// Nothing waits: a receive from a peer that is silent times out at once. TLS passes the bytes
// unchanged. One object at a time; the hosts outlive it or at least their last connection.

#ifndef TESTS_SUPPORT_FAKE_PLATFORM_H
#define TESTS_SUPPORT_FAKE_PLATFORM_H

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cfg_group.h"
#include "fake_memory.h"
#include "mail_host.h"
#include "tav_netsock.h"
#include "tlsw.h"

namespace tav_test {

enum class tls_mode { plain, implicit };

// What an attacker in between does to what the host says, counted over all connections, and what
// went by. It ends when `active` becomes false: from then on everything passes.
struct tampering {
  static constexpr size_t never = SIZE_MAX;

  size_t cut = never;                      // only so many bytes pass; then silence
  bool cut_closes = false;                 // or the connection is closed instead
  std::map<size_t, std::string> replaced;  // of the things that are said, from 1
  bool ends_there = false;                 // nothing is said after the last of them
  bool active = false;

  size_t said = 0;   // things said by the host; a greeting or a reply, of however many lines
  size_t bytes = 0;  // of them
};

struct fake_socket {
  bool shut = false;
  bool under_tls = false;
  std::unique_ptr<mailhost::session> peer;  // once it is connected
  bool peer_gone = false;
  bool is_cut_off = false;    // nothing of the peer arrives any more
  bool implicit_tls = false;  // the peer waits for a handshake before anything else
  std::string inbound;        // from the peer
  size_t taken = 0;           // of it, already received

  bool has_inbound() const { return taken < inbound.size(); }
  void peer_leaves();
};

class fake_platform {
 public:
  static constexpr size_t unlimited = SIZE_MAX;

  fake_platform();
  ~fake_platform();
  fake_platform(const fake_platform&) = delete;
  fake_platform& operator=(const fake_platform&) = delete;

  // The answers for names, in this order. A name that is not here fails, an address literal
  // resolves to itself.
  std::map<std::string, std::vector<std::string>> names;

  // Who answers at an address, SMTP on port 25 and POP3 on 110, or how a connect to it fails; it is
  // refused (-1) without either.
  void serve(const std::string& address, mailhost::mail_host& host,
             tls_mode mode = tls_mode::plain);
  void refuse(const std::string& address, uint16_t port, int32_t result);

  // Kinds of calls are named resolve, socket, set_scope, connect, send, recv, shutdown, close,
  // tls_init, tls_connect, tls_read, tls_write, tls_shutdown, tls_term, and bearer where bear() is
  // linked. The nth call of one (from 1, counted from the construction), or with `all_from` that
  // and all later ones, gives `result` and does nothing else.
  void fail(const std::string& kind, size_t nth, int32_t result, bool all_from = false);
  // The same over all kinds of calls together, with the result that is natural for each; 0 fails
  // none and only counts.
  void fail_any(size_t nth, bool all_from = false, bool is_timeout = false);
  void never_fail();

  // One call moves at most so many bytes. A send limit of 0 moves nothing and says so.
  size_t send_limit = unlimited, recv_limit = unlimited;
  // Milliseconds that a receive takes which brings bytes; less than the time-outs.
  int32_t drip = 0;
  tampering attack;

  // The access tokens of tav_bearer.h: the first, and the one after its refusal; "" for none. A
  // program that does not call this lacks the function, as a device without tokens does.
  void bear(const std::string& token, const std::string& refreshed);
  std::string tokens[2];

  CFG_EVENT_MAIL device_settings = {};
  int32_t device_result = CFG_OK;

  // Calls of these kinds, and sleeps, as text: "resolve mail.example", "socket", "send 12",
  // "connect 192.0.2.1:25", "connect [2001:db8::1]:25", "tls_connect 0 1 0 0 0" with the option
  // bytes, "close", "sleep 300". What is not a plain success has its result behind it: "connect
  // 192.0.2.1:25 = -2". Receives are not written down.
  std::vector<std::string> calls(const std::set<std::string>& kinds) const;
  size_t any_calls = 0;                               // since the latest fail_any
  std::map<std::string, std::set<int64_t>> timeouts;  // that calls were given
  // Milliseconds that the calls so far would have taken on a device: the time-outs that ran out,
  // sleeps and dripping receives.
  int64_t clock = 0;

  // That something is still open: a socket, a TLS context, a resolver answer.
  std::string leaks() const;
  // No leaks, and nothing that the caller did wrong: use after close, bytes in clear while TLS is
  // active, a socket closed before its TLS was ended, ... Writes them to the error output
  // otherwise.
  bool clean() const;

  // For the files that fake one interface each.

  struct endpoint {
    mailhost::mail_host* host = nullptr;
    mailhost::protocol speaks = mailhost::protocol::smtp;
    tls_mode mode = tls_mode::plain;
    int32_t result = TAV_NETSOCK_ERROR;
  };
  struct tls_context {
    int32_t sock = 0;
    bool is_active = false;  // its session
  };
  struct answer_entry {
    tav_netsock_addrinfo info;
    alignas(4) uint8_t address[28];
  };

  std::map<std::string, endpoint> endpoints;
  std::map<int32_t, fake_socket> sockets;
  int32_t next_socket = 3;
  std::map<uint32_t, tls_context> contexts;
  uint32_t next_context = 0x1001;
  std::map<tav_netsock_addrinfo*, std::list<answer_entry>> answers;  // by their first entry

  // The condition, which is a fault of the caller where it does not hold.
  bool require(bool condition, const std::string& kind, const char* otherwise);
  // Writes down the time-out of the call that begins now.
  void begin(const std::string& kind, int64_t timeout_ms);
  // Counts the call; the result that is forced on it, if any.
  std::optional<int32_t> forced(const std::string& kind);
  // Writes the call down and gives its result back.
  int32_t done(const std::string& kind, int32_t result, const std::string& detail = "");
  // The same for a transfer of so many bytes.
  int32_t transferred(const std::string& kind, int32_t result, int64_t moved);
  void sleep(int32_t milliseconds);

  // Lets what the peer has said take effect as far as it needs no handshake.
  void pump(fake_socket& sock);
  // Bytes to the peer, and from it into `data`. Counts of what was moved.
  int32_t give(fake_socket& sock, const void* data, int32_t len);
  int32_t take(fake_socket& sock, void* data, int32_t len);

 private:
  // Of one kind of calls, or of all of them together.
  struct failure_rule {
    size_t nth;
    bool all_from;
    int32_t result;
    bool hits(size_t call) const { return nth != 0 && (all_from ? call >= nth : call == nth); }
  };

  void arrive(fake_socket& sock, const std::string& said);

  std::multimap<std::string, failure_rule> m_rules;
  failure_rule m_anyRule = {};
  bool m_isAnyLate = false;
  std::map<std::string, size_t> m_counts;
  std::vector<std::pair<std::string, std::string>> m_records;  // kinds and texts
  std::string m_faults;                                        // one a line
  size_t m_idleCalls = 0;   // transfers in a row that moved nothing
  int64_t m_timeLimit = 0;  // ms that the present call may take
};

// Entry of every faked call: no failing operator new below the code under test.
struct net_entry {
  net_entry();
  fake_platform& net;
  const new_failure_pause pause = {};
};

// Answers a call with what the test forces on it, or what `body` does.
template <typename Body>
int32_t answer(const std::string& kind, const std::string& detail, Body&& body) {
  const net_entry entry;
  const auto forced = entry.net.forced(kind);
  return entry.net.done(kind, forced ? *forced : body(entry.net), detail);
}

// "192.0.2.1:25", "[2001:db8::1]:25"
std::string endpoint_name(const std::string& address, uint16_t port);

}  // namespace tav_test

#endif
