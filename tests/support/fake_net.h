// fake_net.h - the state behind fake_platform.h, shared by the files that fake one interface each.

#ifndef TESTS_SUPPORT_FAKE_NET_H
#define TESTS_SUPPORT_FAKE_NET_H

#include <array>
#include <list>
#include <map>
#include <optional>
#include <utility>

#include "fail_new.h"
#include "fake_platform.h"
#include "tav_netsock.h"
#include "tlsw.h"

namespace tav_test {

struct fake_endpoint {
  mail_host* host = nullptr;
  tls_mode mode = tls_mode::plain;
  int32_t result = TAV_NETSOCK_ERROR;
};

struct fake_socket {
  bool shut = false;
  uint32_t session = 0;             // the TLS session that protects it now
  std::unique_ptr<mail_peer> peer;  // once it is connected
  bool peer_gone = false;
  bool implicit_tls = false;  // the peer waits for a handshake before anything else
  std::string inbound;        // from the peer
  size_t taken = 0;           // of it, already received

  bool has_inbound() const { return taken < inbound.size(); }
  // Lets the peer's queue take effect as far as it needs no handshake.
  void pump();
  void peer_leaves();
};

struct fake_tls_session {
  int32_t sock;
  bool ended = false;
};

struct fake_answer {
  struct entry {
    tav_netsock_addrinfo info;
    alignas(4) uint8_t address[28];
  };
  std::list<entry> entries;  // which stay where they are when the answer is moved
};

struct fake_net {
  // Of one kind of calls, or of all of them together.
  struct failure_rule {
    size_t nth;
    bool all_from;
    int32_t result;
    bool hits(size_t call) const { return nth != 0 && (all_from ? call >= nth : call == nth); }
  };

  std::map<std::string, std::vector<std::string>> names;
  std::map<std::string, fake_endpoint> endpoints;
  std::multimap<net_call, failure_rule> rules;
  failure_rule any_rule = {};
  fake_platform::outcome any_outcome = fake_platform::outcome::error;
  size_t any_calls = 0;
  std::map<net_call, size_t> counts;
  size_t send_limit = fake_platform::unlimited;
  size_t recv_limit = fake_platform::unlimited;
  CFG_EVENT_MAIL device = {};
  int32_t device_result = CFG_OK;
  std::string tokens[2];  // the second after a refusal

  std::map<int32_t, fake_socket> sockets;
  int32_t next_socket = 3;
  std::set<uint32_t> contexts;
  std::map<uint32_t, fake_tls_session> sessions;  // at most one on a context
  uint32_t next_context = 0x1001;
  std::list<fake_answer> answers;

  std::vector<std::pair<std::optional<net_call>, std::string>> records;  // sleeps have no kind
  std::map<net_call, std::set<int64_t>> timeouts;
  std::string faults;     // one a line
  size_t idle_calls = 0;  // transfers in a row that moved nothing
  int64_t clock = 0;      // ms
  int64_t drip = 0;       // ms that a receive takes
  int64_t limit = 0;      // ms that the present call may take

  void fault(const std::string& text) { faults += text + "\n"; }
  // A fault unless the condition holds, which is given back.
  bool require(bool condition, net_call kind, const char* otherwise);

  // Writes down the time-out of the call that begins now.
  void begin(net_call kind, int64_t timeout_ms);
  // Counts the call; the result that the script forces on it, if any.
  std::optional<int32_t> forced(net_call kind);
  // Writes the call down and gives its result back.
  int32_t done(net_call kind, int32_t result, const std::string& detail = "");
  // The same for a transfer of so many bytes.
  int32_t transferred(net_call kind, int32_t result, int64_t moved);

  // Bytes to the peer, and from it into `data`. Counts of what was moved.
  int32_t give(fake_socket& sock, const void* data, int32_t len) const;
  int32_t take(fake_socket& sock, void* data, int32_t len);
};

// Entry of every faked call: no failing operator new below the code under test. Without a
// fake_platform `net` is a world in which nobody answers.
class net_entry {
 public:
  net_entry();
  fake_net* net;

 private:
  new_failure_pause m_pause;
};

const char* name_of(net_call kind);
// "192.0.2.1:25", "[2001:db8::1]:25"
std::string endpoint_name(const std::string& address, uint16_t port);

}  // namespace tav_test

#endif
