#include "fake_platform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "fake_net.h"
#include "osw.h"

namespace tav_test {
namespace {

// A caller that goes on for ever with transfers that move nothing would hang the test.
constexpr size_t max_idle_calls = 10000;

// What a port waits when it is given no time-out (tav_netsock.h).
constexpr int64_t port_limit = 30000;

fake_net* current_net = nullptr;

struct kind_entry {
  const char* name;
  int32_t error, timeout;  // its natural results
};

constexpr kind_entry kind_table[] = {
    {"resolve", TAV_NETSOCK_ERROR, TAV_NETSOCK_ERROR},
    {"socket", TAV_NETSOCK_ERROR, TAV_NETSOCK_ERROR},
    {"set_scope", TAV_NETSOCK_ERROR, TAV_NETSOCK_ERROR},
    {"connect", TAV_NETSOCK_ERROR, TAV_NETSOCK_TIMEOUT},
    {"send", TAV_NETSOCK_ERROR, TAV_NETSOCK_TIMEOUT},
    {"recv", TAV_NETSOCK_ERROR, TAV_NETSOCK_TIMEOUT},
    {"shutdown", TAV_NETSOCK_ERROR, TAV_NETSOCK_ERROR},
    {"close", TAV_NETSOCK_ERROR, TAV_NETSOCK_ERROR},
    {"tls_init", TLSW_ERR_NO_MEMORY, TLSW_ERR_NO_MEMORY},
    {"tls_connect", TLSW_ERR_CONNECT, TLSW_ERR_TIMEOUT},
    {"tls_read", TLSW_ERR_READ, TLSW_ERR_TIMEOUT},
    {"tls_write", TLSW_ERR_WRITE, TLSW_ERR_TIMEOUT},
    {"tls_shutdown", TLSW_ERR_SHUTDOWN, TLSW_ERR_SHUTDOWN},
    {"tls_term", TLSW_ERR_SHUTDOWN, TLSW_ERR_SHUTDOWN},
    {"bearer", -1, -1},
};

const kind_entry& natural(net_call kind) { return kind_table[static_cast<size_t>(kind)]; }

bool is_timeout(net_call kind, int32_t result) {
  return result == natural(kind).timeout && result != natural(kind).error;
}

}  // namespace

net_entry::net_entry() {
  static fake_net& nobody = *new fake_net;
  net = current_net != nullptr ? current_net : &nobody;
}

const char* name_of(net_call kind) { return natural(kind).name; }

std::string endpoint_name(const std::string& address, uint16_t port) {
  const bool v6 = address.find(':') != std::string::npos;
  return (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

bool fake_net::require(bool condition, net_call kind, const char* otherwise) {
  if (!condition) fault(std::string(name_of(kind)) + " " + otherwise);
  return condition;
}

void fake_net::begin(net_call kind, int64_t timeout_ms) {
  timeouts[kind].insert(timeout_ms);
  limit = timeout_ms > 0 ? timeout_ms : port_limit;
}

std::optional<int32_t> fake_net::forced(net_call kind) {
  const size_t nth = ++counts[kind];
  ++any_calls;
  const auto [first, last] = rules.equal_range(kind);
  for (auto rule = first; rule != last; ++rule)
    if (rule->second.hits(nth)) return rule->second.result;
  if (!any_rule.hits(any_calls)) return std::nullopt;
  const bool is_late = any_outcome == fake_platform::outcome::timeout;
  return is_late ? natural(kind).timeout : natural(kind).error;
}

int32_t fake_net::done(net_call kind, int32_t result, const std::string& detail) {
  std::string text = name_of(kind);
  if (is_timeout(kind, result)) clock += limit;
  if (!detail.empty()) text += " " + detail;
  const bool plain = kind == net_call::socket ? result > 0 : result == 0;
  if (!plain) text += " = " + std::to_string(result);
  records.emplace_back(kind, text);
  idle_calls = 0;
  return result;
}

int32_t fake_net::transferred(net_call kind, int32_t result, int64_t moved) {
  if (is_timeout(kind, result)) clock += limit;
  idle_calls = moved > 0 ? 0 : idle_calls + 1;
  if (idle_calls > max_idle_calls) {
    std::cerr << "endless loop of " << name_of(kind) << " calls that move nothing\n";
    std::abort();
  }
  // Dialogues are received byte by byte: a record for each would make the tests slow.
  const bool receives = kind == net_call::recv || kind == net_call::tls_read;
  if (!receives)
    records.emplace_back(kind, std::string(name_of(kind)) + " " + std::to_string(moved));
  return result;
}

void fake_socket::pump() {
  auto& actions = peer->actions;
  while (!actions.empty() && actions.front().kind != peer_action::start_tls) {
    const peer_action action = std::move(actions.front());
    actions.pop_front();
    inbound += action.bytes;
    if (action.kind == peer_action::close) peer_leaves();
  }
}

void fake_socket::peer_leaves() {
  peer_gone = true;
  peer->actions.clear();
}

int32_t fake_net::give(fake_socket& sock, const void* data, int32_t len) const {
  const size_t count = std::min(static_cast<size_t>(len), send_limit);
  if (count == 0) return 0;
  sock.peer->received({static_cast<const char*>(data), count});
  sock.pump();
  return static_cast<int32_t>(count);
}

int32_t fake_net::take(fake_socket& sock, void* data, int32_t len) {
  const size_t wanted = std::min(static_cast<size_t>(len), recv_limit);
  const size_t count = sock.inbound.copy(static_cast<char*>(data), wanted, sock.taken);
  sock.taken += count;
  clock += drip;
  return static_cast<int32_t>(count);
}

fake_platform::fake_platform() : m_net(std::make_unique<fake_net>()) {
  if (current_net != nullptr) std::abort();  // one at a time
  current_net = m_net.get();
}

fake_platform::~fake_platform() { current_net = nullptr; }

void fake_platform::resolve(const std::string& name, const std::vector<std::string>& addresses) {
  m_net->names[name] = addresses;
}

void fake_platform::serve(const std::string& address, uint16_t port, mail_host& host,
                          tls_mode mode) {
  m_net->endpoints[endpoint_name(address, port)] = {&host, mode, 0};
}

void fake_platform::refuse(const std::string& address, uint16_t port, int32_t result) {
  m_net->endpoints[endpoint_name(address, port)].result = result;
}

void fake_platform::fail(net_call kind, size_t nth, int32_t result, bool all_from) {
  m_net->rules.insert({kind, {nth, all_from, result}});
}

void fake_platform::fail_any(size_t nth, outcome how, bool all_from) {
  m_net->any_rule = {nth, all_from, 0};
  m_net->any_outcome = how;
  m_net->any_calls = 0;
}

size_t fake_platform::any_calls() const { return m_net->any_calls; }

void fake_platform::never_fail() {
  m_net->rules.clear();
  m_net->any_rule = {};
}

void fake_platform::send_limit(size_t bytes) { m_net->send_limit = bytes; }
void fake_platform::recv_limit(size_t bytes) { m_net->recv_limit = bytes; }
void fake_platform::drip(int32_t milliseconds) { m_net->drip = milliseconds; }
int64_t fake_platform::clock() const { return m_net->clock; }

void fake_platform::device_settings(const CFG_EVENT_MAIL& record, int32_t result) {
  m_net->device = record;
  m_net->device_result = result;
}

std::vector<std::string> fake_platform::calls(const std::set<net_call>& kinds) const {
  std::vector<std::string> result;
  for (const auto& [kind, text] : m_net->records)
    if (!kind || kinds.count(*kind) != 0) result.push_back(text);
  return result;
}

std::set<int64_t> fake_platform::timeouts(net_call kind) const { return m_net->timeouts[kind]; }

std::string fake_platform::leaks() const {
  std::string lines;
  const std::pair<const char*, size_t> open[] = {{"sockets", m_net->sockets.size()},
                                                 {"TLS contexts", m_net->contexts.size()},
                                                 {"TLS sessions", m_net->sessions.size()},
                                                 {"resolver answers", m_net->answers.size()}};
  for (const auto& [what, count] : open)
    if (count > 0) lines += std::to_string(count) + " " + what + " still open\n";
  return lines;
}

bool fake_platform::clean() const {
  const std::string found = m_net->faults + leaks();
  std::cerr << found;
  return found.empty();
}

}  // namespace tav_test

int32_t cfg_group_get_event_mail(CFG_EVENT_MAIL* record) noexcept {
  if (tav_test::current_net == nullptr || record == nullptr) return -1;
  *record = tav_test::current_net->device;
  return tav_test::current_net->device_result;
}

void osw_Sleep(int32_t milliseconds) noexcept {
  const tav_test::net_entry entry;
  entry.net->clock += milliseconds;
  entry.net->records.emplace_back(std::nullopt, "sleep " + std::to_string(milliseconds));
}
