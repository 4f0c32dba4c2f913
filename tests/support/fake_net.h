// fake_net.h - the state behind fake_platform.h, shared by the files that fake one interface each.

#ifndef TESTS_SUPPORT_FAKE_NET_H
#define TESTS_SUPPORT_FAKE_NET_H

#include <list>
#include <map>
#include <mutex>
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
  int32_t family = 0;
  bool connected = false;
  bool shut = false;
  uint32_t session = 0;  // the TLS session that protects it now
  std::unique_ptr<mail_peer> peer;
  bool peer_gone = false;
  bool implicit_tls = false;  // the peer waits for a handshake before anything else
  std::string inbound;        // from the peer
  size_t taken = 0;           // of it, already received

  bool has_inbound() const { return taken < inbound.size(); }
};

struct fake_tls_session {
  uint32_t context;
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

struct call_record {
  std::optional<net_call> kind;  // none for a sleep
  std::string text;
};

struct fake_net {
  struct failure_rule {
    int32_t result;
    bool all_from;
  };

  std::map<std::string, std::vector<std::string>> names;
  std::map<std::string, fake_endpoint> endpoints;
  std::map<std::pair<net_call, size_t>, failure_rule> rules;
  size_t any_nth = 0;
  bool any_from = false;
  fake_platform::outcome any_outcome = fake_platform::outcome::error;
  size_t any_calls = 0;
  std::array<size_t, static_cast<size_t>(net_call::tls_term) + 1> counts = {};
  size_t send_limit = fake_platform::unlimited;
  size_t recv_limit = fake_platform::unlimited;
  CFG_EVENT_MAIL device = {};
  int32_t device_result = CFG_OK;

  std::map<int32_t, fake_socket> sockets;
  int32_t next_socket = 3;
  std::set<uint32_t> contexts;
  std::map<uint32_t, fake_tls_session> sessions;
  uint32_t next_tls_handle = 0x1001;
  std::list<fake_answer> answers;

  std::vector<call_record> records;
  std::map<net_call, std::set<int64_t>> timeouts;
  std::vector<std::array<uint8_t, 16>> tls_records;
  std::vector<int32_t> sleeps;
  std::vector<std::string> faults;
  size_t idle_calls = 0;  // transfers in a row that moved nothing
  size_t transfers = 0;
  int64_t clock = 0;  // ms
  int64_t drip = 0;   // ms that a receive takes
  int64_t limit = 0;  // ms that the present call may take

  void fault(const std::string& text) { faults.push_back(text); }

  // Writes down the time-out of the call that begins now.
  void begin(net_call kind, int64_t timeout_ms);
  // Counts the call; the result that the script forces on it, if any.
  std::optional<int32_t> forced(net_call kind);
  // Writes the call down and gives its result back.
  int32_t done(net_call kind, int32_t result, const std::string& detail = "");
  // The same for a transfer of so many bytes.
  int32_t transferred(net_call kind, int32_t result, int64_t moved);

  // Lets the peer's queue take effect as far as it needs no handshake.
  static void pump(fake_socket& sock);
  static void peer_leaves(fake_socket& sock);
  // Bytes to the peer, and from it into `data`. Counts of what was moved.
  int32_t give(fake_socket& sock, const void* data, int32_t len) const;
  int32_t take(fake_socket& sock, void* data, int32_t len);
  // False when nothing is there to be received, not even after the peer was asked for more.
  static bool has_more(fake_socket& sock);
};

// Entry of every faked call: one thread at a time, and no failing operator new below the code under
// test. Without a fake_platform `net` is a world in which nobody answers.
class net_entry {
 public:
  net_entry();
  fake_net* net;

 private:
  new_failure_pause m_pause;
  std::lock_guard<std::recursive_mutex> m_lock;
};

const char* name_of(net_call kind);
// "192.0.2.1:25", "[2001:db8::1]:25"; "?" for an address that is not well formed.
std::string endpoint_name(const std::string& address, uint16_t port);

}  // namespace tav_test

#endif
