#include "fake_platform.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "osw.h"

namespace tav_test {
namespace {

// A caller that goes on for ever with transfers that move nothing would hang the test.
constexpr size_t max_idle_calls = 10000;

// What a port waits when it is given no time-out (tav_netsock.h).
constexpr int64_t port_limit = 30000;

fake_platform* current = nullptr;

struct results {
  int32_t error, timeout;
};

// Those that are natural for a kind of call.
const results& natural(const std::string& kind) {
  static const results ordinary = {TAV_NETSOCK_ERROR, TAV_NETSOCK_ERROR};
  static const std::map<std::string, results> others = {
      {"connect", {TAV_NETSOCK_ERROR, TAV_NETSOCK_TIMEOUT}},
      {"send", {TAV_NETSOCK_ERROR, TAV_NETSOCK_TIMEOUT}},
      {"recv", {TAV_NETSOCK_ERROR, TAV_NETSOCK_TIMEOUT}},
      {"tls_init", {TLSW_ERR_NO_MEMORY, TLSW_ERR_NO_MEMORY}},
      {"tls_connect", {TLSW_ERR_CONNECT, TLSW_ERR_TIMEOUT}},
      {"tls_read", {TLSW_ERR_READ, TLSW_ERR_TIMEOUT}},
      {"tls_write", {TLSW_ERR_WRITE, TLSW_ERR_TIMEOUT}},
      {"tls_shutdown", {TLSW_ERR_SHUTDOWN, TLSW_ERR_SHUTDOWN}},
      {"tls_term", {TLSW_ERR_SHUTDOWN, TLSW_ERR_SHUTDOWN}}};
  const auto found = others.find(kind);
  return found != others.end() ? found->second : ordinary;
}

bool is_timeout(const std::string& kind, int32_t result) {
  return result == natural(kind).timeout && result != natural(kind).error;
}

}  // namespace

// A call without a platform would be a fault of the test.
net_entry::net_entry() : net(*current) {}

std::string endpoint_name(const std::string& address, uint16_t port) {
  const bool v6 = address.find(':') != std::string::npos;
  return (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

fake_platform::fake_platform() {
  if (current != nullptr) std::abort();  // one at a time
  current = this;
}

fake_platform::~fake_platform() { current = nullptr; }

void fake_platform::serve(const std::string& address, mailhost::mail_host& host, tls_mode mode) {
  using mailhost::protocol;
  endpoints[endpoint_name(address, 25)] = {&host, protocol::smtp, mode, 0};
  endpoints[endpoint_name(address, 110)] = {&host, protocol::pop3, mode, 0};
}

void fake_platform::refuse(const std::string& address, uint16_t port, int32_t result) {
  endpoints[endpoint_name(address, port)].result = result;
}

void fake_platform::fail(const std::string& kind, size_t nth, int32_t result, bool all_from) {
  m_rules.insert({kind, {nth, all_from, result}});
}

void fake_platform::fail_any(size_t nth, bool all_from, bool is_timeout) {
  m_anyRule = {nth, all_from, 0};
  m_isAnyLate = is_timeout;
  any_calls = 0;
}

void fake_platform::never_fail() {
  m_rules.clear();
  m_anyRule = {};
}

std::vector<std::string> fake_platform::calls(const std::set<std::string>& kinds) const {
  std::vector<std::string> result;
  for (const auto& [kind, text] : m_records)
    if (kind == "sleep" || kinds.count(kind) != 0) result.push_back(text);
  return result;
}

std::string fake_platform::leaks() const {
  const bool is_all_closed = sockets.empty() && contexts.empty() && answers.empty();
  return is_all_closed ? "" : "a socket, TLS context or resolver answer is still open\n";
}

bool fake_platform::clean() const {
  const std::string found = m_faults + leaks();
  std::cerr << found;
  return found.empty();
}

bool fake_platform::require(bool condition, const std::string& kind, const char* otherwise) {
  if (!condition) m_faults += kind + " " + otherwise + "\n";
  return condition;
}

void fake_platform::begin(const std::string& kind, int64_t timeout_ms) {
  timeouts[kind].insert(timeout_ms);
  m_timeLimit = timeout_ms > 0 ? timeout_ms : port_limit;
}

std::optional<int32_t> fake_platform::forced(const std::string& kind) {
  const size_t nth = ++m_counts[kind];
  ++any_calls;
  const auto [first, last] = m_rules.equal_range(kind);
  for (auto rule = first; rule != last; ++rule)
    if (rule->second.hits(nth)) return rule->second.result;
  if (!m_anyRule.hits(any_calls)) return std::nullopt;
  return m_isAnyLate ? natural(kind).timeout : natural(kind).error;
}

int32_t fake_platform::done(const std::string& kind, int32_t result, const std::string& detail) {
  std::string text = kind;
  if (is_timeout(kind, result)) clock += m_timeLimit;
  if (!detail.empty()) text += " " + detail;
  const bool plain = kind == "socket" ? result > 0 : result == 0;
  if (!plain) text += " = " + std::to_string(result);
  m_records.emplace_back(kind, text);
  m_idleCalls = 0;
  return result;
}

int32_t fake_platform::transferred(const std::string& kind, int32_t result, int64_t moved) {
  if (is_timeout(kind, result)) clock += m_timeLimit;
  m_idleCalls = moved > 0 ? 0 : m_idleCalls + 1;
  if (m_idleCalls > max_idle_calls) {
    std::cerr << "endless loop of " << kind << " calls that move nothing\n";
    std::abort();
  }
  // Dialogues are received byte by byte: a record for each would make the tests slow.
  if (kind == "send" || kind == "tls_write")
    m_records.emplace_back(kind, kind + " " + std::to_string(moved));
  return result;
}

void fake_platform::sleep(int32_t milliseconds) {
  clock += milliseconds;
  m_records.emplace_back("sleep", "sleep " + std::to_string(milliseconds));
}

void fake_socket::peer_leaves() {
  peer_gone = true;
  peer->actions.clear();
}

void fake_platform::pump(fake_socket& sock) {
  using mailhost::action;
  auto& actions = sock.peer->actions;
  while (!actions.empty() && (actions.front().kind != action::start_tls || sock.is_cut_off)) {
    const action what = std::move(actions.front());
    actions.pop_front();
    if (!sock.is_cut_off && what.kind == action::send) arrive(sock, what.bytes);
    if (!sock.is_cut_off && (what.kind == action::close || what.kind == action::reset))
      sock.peer_leaves();
    if (actions.empty()) sock.peer->received("");  // goes on with bytes that came too early
  }
}

// What the peer said, or what the attacker makes of it.
void fake_platform::arrive(fake_socket& sock, const std::string& said) {
  if (!attack.active) {
    sock.inbound += said;
    return;
  }
  attack.bytes += said.size();
  const auto replaced = attack.replaced.find(++attack.said);
  if (replaced != attack.replaced.end()) {
    sock.inbound += replaced->second;
    sock.is_cut_off = attack.ends_there && attack.said == attack.replaced.rbegin()->first;
  } else {
    const size_t allowed = std::min(said.size(), attack.cut);
    sock.inbound.append(said, 0, allowed);
    if (attack.cut != tampering::never) attack.cut -= allowed;
    sock.is_cut_off = attack.cut == 0;
  }
  if (sock.is_cut_off && attack.cut_closes) sock.peer_leaves();
}

int32_t fake_platform::give(fake_socket& sock, const void* data, int32_t len) {
  const size_t count = std::min(static_cast<size_t>(len), send_limit);
  if (count == 0) return 0;
  sock.peer->received({static_cast<const char*>(data), count});
  pump(sock);
  return static_cast<int32_t>(count);
}

int32_t fake_platform::take(fake_socket& sock, void* data, int32_t len) {
  const size_t wanted = std::min(static_cast<size_t>(len), recv_limit);
  const size_t count = sock.inbound.copy(static_cast<char*>(data), wanted, sock.taken);
  sock.taken += count;
  clock += drip;
  return static_cast<int32_t>(count);
}

}  // namespace tav_test

int32_t cfg_group_get_event_mail(CFG_EVENT_MAIL* record) noexcept {
  const tav_test::net_entry entry;
  *record = entry.net.device_settings;
  return entry.net.device_result;
}

void osw_Sleep(int32_t milliseconds) noexcept { tav_test::net_entry().net.sleep(milliseconds); }
