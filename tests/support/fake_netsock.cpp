// fake_netsock.cpp - tav_netsock.h on scripted peers.

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "fake_net.h"
#include "tav_netsock.h"

namespace tav_test {
namespace {

constexpr uint32_t fake_scope = 7;
constexpr int32_t resolver_failure = -2;

bool link_local(const uint8_t* addr) { return addr[0] == 0xfe && (addr[1] & 0xc0) == 0x80; }

// Adds the address of a text, if it is one and of the wanted family.
void add_address(fake_answer& answer, const std::string& text, int32_t wanted_family) {
  tav_netsock_sockaddr_in v4 = {};
  tav_netsock_sockaddr_in6 v6 = {};
  v4.family = TAV_NETSOCK_INET;
  v6.family = TAV_NETSOCK_INET6;
  const bool is_v4 = inet_pton(AF_INET, text.c_str(), v4.addr) == 1;
  if (!is_v4 && inet_pton(AF_INET6, text.c_str(), v6.addr) != 1) return;
  const int32_t family = is_v4 ? v4.family : v6.family;
  if (wanted_family != TAV_NETSOCK_UNSPEC && wanted_family != family) return;
  const size_t size = is_v4 ? sizeof v4 : sizeof v6;
  fake_answer::entry& added = answer.entries.emplace_back();
  std::memcpy(added.address, is_v4 ? static_cast<const void*>(&v4) : &v6, size);
  added.info = {0,
                family,
                TAV_NETSOCK_STREAM,
                TAV_NETSOCK_TCP,
                static_cast<int32_t>(size),
                added.address,
                nullptr};
  if (answer.entries.size() > 1) std::prev(answer.entries.end(), 2)->info.next = &added.info;
}

// The socket of a handle, or null. A handle of 0 or less is allowed by the contract; any other that
// is not open is the caller's fault.
fake_socket* open_socket(fake_net& net, int32_t handle, net_call kind) {
  const auto found = net.sockets.find(handle);
  if (found != net.sockets.end()) return &found->second;
  if (handle > 0)
    net.fault(std::string(name_of(kind)) + " on socket " + std::to_string(handle) +
              (handle < net.next_socket ? " after it was closed" : ", which never was one"));
  return nullptr;
}

// Where a socket address leads, "" when it is not well formed.
std::string target_of(fake_net& net, const void* addr, int32_t addr_len) {
  char text[INET6_ADDRSTRLEN] = "";
  tav_netsock_sockaddr_in v4 = {};
  tav_netsock_sockaddr_in6 v6 = {};
  if (addr == nullptr || addr_len < 2) return "";
  uint16_t family = 0;
  std::memcpy(&family, addr, sizeof family);
  if (family == TAV_NETSOCK_INET && addr_len == sizeof v4) {
    std::memcpy(&v4, addr, sizeof v4);
    inet_ntop(AF_INET, v4.addr, text, sizeof text);
    return endpoint_name(text, ntohs(v4.port));
  }
  if (family == TAV_NETSOCK_INET6 && addr_len == sizeof v6) {
    std::memcpy(&v6, addr, sizeof v6);
    inet_ntop(AF_INET6, v6.addr, text, sizeof text);
    if (link_local(v6.addr) && v6.scope_id != fake_scope)
      net.fault("connect to a link-local address without its scope");
    return endpoint_name(text, ntohs(v6.port));
  }
  return "";
}

int32_t connect_to(fake_net& net, fake_socket& sock, const std::string& target) {
  const auto found = net.endpoints.find(target);
  if (found == net.endpoints.end()) return TAV_NETSOCK_ERROR;
  const fake_endpoint& endpoint = found->second;
  if (endpoint.result != 0) return endpoint.result;
  sock.connected = true;
  sock.implicit_tls = endpoint.mode == tls_mode::implicit;
  if (endpoint.host == nullptr) return 0;
  sock.peer = endpoint.host->accept();
  if (!sock.implicit_tls) sock.peer->connected(false);
  fake_net::pump(sock);
  return 0;
}

// Reasons why a transfer in clear is the caller's fault.
bool may_transfer(fake_net& net, const fake_socket& sock, net_call kind, const void* data,
                  int32_t len) {
  const char* reason = nullptr;
  if (!sock.connected) reason = "on a socket that is not connected";
  if (sock.shut) reason = "after shutdown";
  if (sock.session != 0) reason = "in clear while TLS is active";
  if (data == nullptr || len < 0) reason = "of a buffer that is none";
  if (reason) net.fault(std::string(name_of(kind)) + " " + reason);
  return reason == nullptr;
}

int32_t send_to(fake_net& net, fake_socket& sock, const void* data, int32_t len) {
  if (sock.peer_gone) return TAV_NETSOCK_ERROR;
  if (!sock.peer) return len;  // an endpoint without a host swallows everything
  if (sock.implicit_tls || !sock.peer->actions.empty()) {
    // The peer expects a handshake, and these bytes are none.
    fake_net::peer_leaves(sock);
    return len;
  }
  return net.give(sock, data, len);
}

// Answers a call with what the script forces on it, or what `body` does.
template <typename Body>
int32_t answer(net_call kind, const std::string& detail, Body&& body) {
  net_entry entry;
  const auto forced = entry.net->forced(kind);
  return entry.net->done(kind, forced ? *forced : body(*entry.net), detail);
}

// A send or a receive; `move` gives its count or error.
template <typename Move>
int32_t transfer(net_call kind, int32_t sock, const void* data, int32_t len, int32_t timeout_ms,
                 Move&& move) {
  net_entry entry;
  fake_net& net = *entry.net;
  net.begin(kind, timeout_ms);
  fake_socket* const found = open_socket(net, sock, kind);
  const bool allowed = found && may_transfer(net, *found, kind, data, len);
  const auto forced = net.forced(kind);
  int32_t result = TAV_NETSOCK_ERROR;
  if (forced)
    result = std::min(*forced, 0);
  else if (allowed)
    result = move(net, *found);
  return net.transferred(kind, result, result);
}

int32_t resolve(fake_net& net, const std::string& name, int32_t family,
                tav_netsock_addrinfo** list) {
  const auto found = net.names.find(name);
  const bool is_known = found != net.names.end();
  fake_answer answer;
  for (const std::string& text : is_known ? found->second : std::vector<std::string>{name})
    add_address(answer, text, family);
  if (answer.entries.empty() && !is_known) return resolver_failure;
  *list = answer.entries.empty() ? nullptr : &answer.entries.front().info;
  if (*list != nullptr) net.answers.push_back(std::move(answer));
  return 0;
}

}  // namespace
}  // namespace tav_test

using namespace tav_test;

int32_t tav_netsock_getaddrinfo(const char* host, const char* service,
                                const tav_netsock_addrinfo* hints,
                                tav_netsock_addrinfo** list) noexcept {
  const std::string name = host ? host : "(null)";
  return answer(net_call::resolve, name, [&](fake_net& net) {
    if (host == nullptr || list == nullptr || service != nullptr)
      net.fault("resolve without a name or a place for the answer, or with a service");
    return list == nullptr ? TAV_NETSOCK_ERROR
                           : resolve(net, name, hints ? hints->family : TAV_NETSOCK_UNSPEC, list);
  });
}

void tav_netsock_freeaddrinfo(tav_netsock_addrinfo* list) noexcept {
  net_entry entry;
  auto& answers = entry.net->answers;
  const auto found = std::find_if(answers.begin(), answers.end(), [list](const auto& one) {
    return &one.entries.front().info == list;
  });
  if (found != answers.end())
    answers.erase(found);
  else if (list != nullptr)
    entry.net->fault("free of something not a resolver answer");
}

int32_t tav_netsock_socket(int32_t family, int32_t type, int32_t) noexcept {
  return answer(net_call::socket, "", [&](fake_net& net) -> int32_t {
    const bool known = family == TAV_NETSOCK_INET || family == TAV_NETSOCK_INET6;
    if (!known || type != TAV_NETSOCK_STREAM) {
      net.fault("socket of an unknown family or type");
      return TAV_NETSOCK_ERROR;
    }
    net.sockets[net.next_socket].family = family;
    return net.next_socket++;  // never used twice, so late uses are seen
  });
}

int32_t tav_netsock_set_scope(void* addr, int32_t addr_len) noexcept {
  return answer(net_call::set_scope, "", [&](fake_net& net) -> int32_t {
    tav_netsock_sockaddr_in6 v6 = {};
    if (addr != nullptr && addr_len == sizeof v6) std::memcpy(&v6, addr, sizeof v6);
    if (v6.family != TAV_NETSOCK_INET6 || !link_local(v6.addr)) {
      net.fault("set_scope of something not a link-local address");
      return TAV_NETSOCK_ERROR;
    }
    v6.scope_id = fake_scope;
    std::memcpy(addr, &v6, sizeof v6);
    return 0;
  });
}

int32_t tav_netsock_connect_timeo(int32_t sock, const void* addr, int32_t addr_len,
                                  int32_t timeout_ms) noexcept {
  net_entry entry;
  entry.net->begin(net_call::connect, timeout_ms);
  const std::string target = target_of(*entry.net, addr, addr_len);
  fake_socket* const found = open_socket(*entry.net, sock, net_call::connect);
  return answer(net_call::connect, target.empty() ? "?" : target, [&](fake_net& net) -> int32_t {
    if (found == nullptr) return TAV_NETSOCK_ERROR;
    const bool fits = (found->family == TAV_NETSOCK_INET6) == (target.substr(0, 1) == "[");
    if (!target.empty() && fits && !found->connected) return connect_to(net, *found, target);
    net.fault("connect of a connected socket, or to an address that does not fit it");
    return TAV_NETSOCK_ERROR;
  });
}

int32_t tav_netsock_send_timeo(int32_t sock, const void* data, int32_t len, int32_t,
                               int32_t timeout_ms) noexcept {
  return transfer(net_call::send, sock, data, len, timeout_ms,
                  [=](fake_net& net, fake_socket& to) { return send_to(net, to, data, len); });
}

int32_t tav_netsock_recv_timeo(int32_t sock, void* data, int32_t len, int32_t,
                               int32_t timeout_ms) noexcept {
  return transfer(net_call::recv, sock, data, len, timeout_ms,
                  [=](fake_net& net, fake_socket& from) {
                    if (net.has_more(from)) return net.take(from, data, len);
                    return from.peer_gone ? 0 : int32_t{TAV_NETSOCK_TIMEOUT};
                  });
}

int32_t tav_netsock_shutdown(int32_t sock) noexcept {
  net_entry entry;
  fake_socket* const found = open_socket(*entry.net, sock, net_call::shutdown);
  return answer(net_call::shutdown, "", [&](fake_net&) {
    if (found != nullptr) found->shut = true;
    return found ? 0 : int32_t{TAV_NETSOCK_ERROR};
  });
}

// A close that fails has closed all the same, as the system's does.
int32_t tav_netsock_close(int32_t sock) noexcept {
  net_entry entry;
  fake_net& net = *entry.net;
  fake_socket* const found = open_socket(net, sock, net_call::close);
  if (found != nullptr) {
    for (const auto& session : net.sessions)
      if (session.second.sock == sock) net.fault("socket closed before its TLS was ended");
    if (found->peer) found->peer->closed();
    net.sockets.erase(sock);
  }
  return answer(net_call::close, "",
                [=](fake_net&) { return found ? 0 : int32_t{TAV_NETSOCK_ERROR}; });
}
