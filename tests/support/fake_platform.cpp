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
std::recursive_mutex net_mutex;

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
};

bool is_timeout(net_call kind, int32_t result) {
  return kind < net_call::tls_init ? result == TAV_NETSOCK_TIMEOUT && kind != net_call::resolve
                                   : result == TLSW_ERR_TIMEOUT;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

}  // namespace

net_entry::net_entry() : m_lock(net_mutex) {
  static fake_net& nobody = *new fake_net;
  net = current_net != nullptr ? current_net : &nobody;
}

const char* name_of(net_call kind) { return kind_table[static_cast<size_t>(kind)].name; }

std::string endpoint_name(const std::string& address, uint16_t port) {
  const bool v6 = address.find(':') != std::string::npos;
  return (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

void fake_net::begin(net_call kind, int64_t timeout_ms) {
  std::set<int64_t>& given = timeouts[kind];
  if (given.count(timeout_ms) == 0) given.insert(timeout_ms);
  limit = timeout_ms > 0 ? timeout_ms : port_limit;
}

std::optional<int32_t> fake_net::forced(net_call kind) {
  const size_t nth = ++counts[static_cast<size_t>(kind)];
  ++any_calls;
  for (const auto& [where, rule] : rules) {
    if (where.first != kind) continue;
    if (rule.all_from ? nth >= where.second : nth == where.second) return rule.result;
  }
  if (any_nth == 0 || !(any_from ? any_calls >= any_nth : any_calls == any_nth))
    return std::nullopt;
  const kind_entry& natural = kind_table[static_cast<size_t>(kind)];
  return any_outcome == fake_platform::outcome::timeout ? natural.timeout : natural.error;
}

int32_t fake_net::done(net_call kind, int32_t result, const std::string& detail) {
  std::string text = name_of(kind);
  if (is_timeout(kind, result)) clock += limit;
  if (!detail.empty()) text += " " + detail;
  const bool plain = kind == net_call::socket ? result > 0 : result == 0;
  if (!plain) text += " = " + std::to_string(result);
  records.push_back({kind, text});
  idle_calls = 0;
  return result;
}

int32_t fake_net::transferred(net_call kind, int32_t result, int64_t moved) {
  ++transfers;
  if (is_timeout(kind, result)) clock += limit;
  idle_calls = moved > 0 ? 0 : idle_calls + 1;
  if (idle_calls > max_idle_calls) {
    std::cerr << "endless loop of " << name_of(kind) << " calls that move nothing\n";
    std::abort();
  }
  // Dialogues are received byte by byte: a record for each would make the tests slow.
  const bool receives = kind == net_call::recv || kind == net_call::tls_read;
  if (!receives)
    records.push_back({kind, std::string(name_of(kind)) + " " + std::to_string(moved)});
  return result;
}

void fake_net::pump(fake_socket& sock) {
  if (!sock.peer) return;
  auto& actions = sock.peer->actions;
  while (!actions.empty() && actions.front().kind != peer_action::start_tls) {
    const peer_action action = std::move(actions.front());
    actions.pop_front();
    if (action.kind == peer_action::send) {
      sock.inbound += action.bytes;
    } else {
      sock.peer_gone = true;
      actions.clear();
    }
  }
}

void fake_net::peer_leaves(fake_socket& sock) {
  sock.peer_gone = true;
  if (sock.peer) sock.peer->actions.clear();
}

int32_t fake_net::give(fake_socket& sock, const void* data, int32_t len) const {
  const size_t count = std::min(static_cast<size_t>(len), send_limit);
  if (count == 0) return 0;
  sock.peer->received({static_cast<const char*>(data), count});
  pump(sock);
  return static_cast<int32_t>(count);
}

int32_t fake_net::take(fake_socket& sock, void* data, int32_t len) {
  const size_t wanted = std::min(static_cast<size_t>(len), recv_limit);
  const size_t count = std::min(wanted, sock.inbound.size() - sock.taken);
  if (count == 0) return 0;
  std::memcpy(data, sock.inbound.data() + sock.taken, count);
  sock.taken += count;
  clock += drip;
  return static_cast<int32_t>(count);
}

bool fake_net::has_more(fake_socket& sock) {
  if (sock.has_inbound()) return true;
  sock.inbound.clear();
  sock.taken = 0;
  if (!sock.peer || sock.peer_gone) return false;
  sock.peer->starved();
  pump(sock);
  return sock.has_inbound();
}

fake_platform::fake_platform() : m_net(std::make_unique<fake_net>()) {
  net_entry entry;
  if (current_net != nullptr) {
    std::cerr << "there is a fake_platform already\n";
    std::abort();
  }
  current_net = m_net.get();
}

fake_platform::~fake_platform() {
  net_entry entry;
  current_net = nullptr;
}

void fake_platform::resolve(const std::string& name, const std::vector<std::string>& addresses) {
  m_net->names[name] = addresses;
}

void fake_platform::serve(const std::string& address, uint16_t port, mail_host& host,
                          tls_mode mode) {
  m_net->endpoints[endpoint_name(address, port)] = {&host, mode, 0};
}

void fake_platform::connect_result(const std::string& address, uint16_t port, int32_t result) {
  m_net->endpoints[endpoint_name(address, port)].result = result;
}

void fake_platform::fail(net_call kind, size_t nth, int32_t result) {
  m_net->rules[{kind, nth}] = {result, false};
}

void fake_platform::fail_from(net_call kind, size_t nth, int32_t result) {
  m_net->rules[{kind, nth}] = {result, true};
}

void fake_platform::fail_any(size_t nth, outcome how) {
  m_net->any_nth = nth;
  m_net->any_from = false;
  m_net->any_outcome = how;
  m_net->any_calls = 0;
}

void fake_platform::fail_any_from(size_t nth, outcome how) {
  fail_any(nth, how);
  m_net->any_from = true;
}

size_t fake_platform::any_calls() const { return m_net->any_calls; }

void fake_platform::never_fail() {
  m_net->rules.clear();
  m_net->any_nth = 0;
}

void fake_platform::send_limit(size_t bytes) { m_net->send_limit = bytes; }
void fake_platform::recv_limit(size_t bytes) { m_net->recv_limit = bytes; }

void fake_platform::drip(int32_t milliseconds) { m_net->drip = milliseconds; }

size_t fake_platform::transfers() const { return m_net->transfers; }
int64_t fake_platform::clock() const { return m_net->clock; }

void fake_platform::device_settings(const CFG_EVENT_MAIL& record, int32_t result) {
  m_net->device = record;
  m_net->device_result = result;
}

std::vector<std::string> fake_platform::calls(const std::set<net_call>& kinds) const {
  std::vector<std::string> result;
  for (const call_record& record : m_net->records)
    if (!record.kind || kinds.count(*record.kind)) result.push_back(record.text);
  return result;
}

std::set<int64_t> fake_platform::timeouts(net_call kind) const {
  const auto found = m_net->timeouts.find(kind);
  return found == m_net->timeouts.end() ? std::set<int64_t>{} : found->second;
}

std::vector<std::array<uint8_t, 16>> fake_platform::tls_records() const {
  return m_net->tls_records;
}

std::vector<int32_t> fake_platform::sleeps() const { return m_net->sleeps; }

std::string fake_platform::leaks() const {
  std::vector<std::string> lines;
  for (const auto& sock : m_net->sockets)
    lines.push_back("socket " + std::to_string(sock.first) + " is still open");
  for (const uint32_t context : m_net->contexts)
    lines.push_back("TLS context " + std::to_string(context) + " is still open");
  for (const auto& session : m_net->sessions)
    lines.push_back("TLS session " + std::to_string(session.first) + " is still open");
  if (!m_net->answers.empty()) lines.push_back("a resolver answer was not freed");
  return joined(lines);
}

std::string fake_platform::problems() const { return joined(m_net->faults) + leaks(); }

bool fake_platform::clean() const {
  const std::string found = problems();
  std::cerr << found;
  return found.empty();
}

}  // namespace tav_test

int32_t cfg_group_get_event_mail(CFG_EVENT_MAIL* record) noexcept {
  tav_test::net_entry entry;
  if (tav_test::current_net == nullptr || record == nullptr) return -1;
  *record = entry.net->device;
  return entry.net->device_result;
}

void osw_Sleep(int32_t milliseconds) noexcept {
  tav_test::net_entry entry;
  entry.net->sleeps.push_back(milliseconds);
  entry.net->clock += milliseconds;
  entry.net->records.push_back({std::nullopt, "sleep " + std::to_string(milliseconds)});
}
