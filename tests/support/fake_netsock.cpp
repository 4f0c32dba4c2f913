// fake_netsock.cpp - tav_netsock.h on scripted peers.

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "fake_platform.h"

namespace tav_test {
namespace {

constexpr uint32_t fake_scope = 7;
constexpr int32_t resolver_failure = -2;

bool link_local(const uint8_t* addr) { return addr[0] == 0xfe && (addr[1] & 0xc0) == 0x80; }

// Adds the address of a text, if it is one.
void add_address(std::list<fake_platform::answer_entry>& answer, const std::string& text) {
  tav_netsock_sockaddr_in v4 = {};
  tav_netsock_sockaddr_in6 v6 = {};
  v4.family = TAV_NETSOCK_INET;
  v6.family = TAV_NETSOCK_INET6;
  const bool is_v4 = inet_pton(AF_INET, text.c_str(), v4.addr) == 1;
  if (!is_v4 && inet_pton(AF_INET6, text.c_str(), v6.addr) != 1) return;
  const size_t size = is_v4 ? sizeof v4 : sizeof v6;
  auto* const before = answer.empty() ? nullptr : &answer.back().info;
  auto& [info, address] = answer.emplace_back();
  std::memcpy(address, is_v4 ? static_cast<const void*>(&v4) : &v6, size);
  info.family = is_v4 ? v4.family : v6.family;
  info.socket_type = TAV_NETSOCK_STREAM;
  info.protocol = TAV_NETSOCK_TCP;
  info.addr_len = static_cast<int32_t>(size);
  info.addr = address;
  if (before != nullptr) before->next = &info;
}

// The socket of a handle, or null. A handle of 0 or less is allowed by the contract; any other that
// is not open is the caller's fault.
fake_socket* open_socket(fake_platform& net, int32_t handle, const std::string& kind) {
  const auto found = net.sockets.find(handle);
  const bool is_open = found != net.sockets.end();
  net.require(is_open || handle <= 0, kind, "on a socket that is not open");
  return is_open ? &found->second : nullptr;
}

// Where a socket address leads.
std::string target_of(fake_platform& net, const void* addr, int32_t addr_len) {
  char text[INET6_ADDRSTRLEN] = "";
  tav_netsock_sockaddr_in v4 = {};
  tav_netsock_sockaddr_in6 v6 = {};
  if (addr_len == sizeof v4) {
    std::memcpy(&v4, addr, sizeof v4);
    inet_ntop(AF_INET, v4.addr, text, sizeof text);
    return endpoint_name(text, ntohs(v4.port));
  }
  if (!net.require(addr_len == sizeof v6, "connect", "to what is no address")) return "?";
  std::memcpy(&v6, addr, sizeof v6);
  inet_ntop(AF_INET6, v6.addr, text, sizeof text);
  net.require(!link_local(v6.addr) || v6.scope_id == fake_scope, "connect",
              "to a link-local address without its scope");
  return endpoint_name(text, ntohs(v6.port));
}

int32_t connect_to(fake_platform& net, fake_socket& sock, const std::string& target) {
  const fake_platform::endpoint& endpoint = net.endpoints[target];
  if (endpoint.result != 0) return endpoint.result;
  sock.implicit_tls = endpoint.mode == tls_mode::implicit;
  sock.peer = endpoint.host->connect(endpoint.speaks);
  if (!sock.implicit_tls) sock.peer->connected(false);
  net.pump(sock);
  return 0;
}

// A send or a receive; `move` gives its count or error.
template <typename Move>
int32_t transfer(const std::string& kind, int32_t sock, int32_t timeout_ms, Move&& move) {
  const net_entry entry;
  fake_platform& net = entry.net;
  net.begin(kind, timeout_ms);
  fake_socket* const found = open_socket(net, sock, kind);
  const bool allowed =
      found != nullptr &&
      net.require(found->peer && !found->shut, kind, "on a socket that is not connected") &&
      net.require(!found->under_tls, kind, "in clear while TLS is active");
  const auto forced = net.forced(kind);
  int32_t result = TAV_NETSOCK_ERROR;
  if (forced)
    result = std::min(*forced, 0);
  else if (allowed)
    result = move(net, *found);
  return net.transferred(kind, result, result);
}

}  // namespace
}  // namespace tav_test

using namespace tav_test;

int32_t tav_netsock_getaddrinfo(const char* host, const char*, const tav_netsock_addrinfo*,
                                tav_netsock_addrinfo** list) noexcept {
  return answer("resolve", host, [&](fake_platform& net) {
    const auto found = net.names.find(host);
    std::list<fake_platform::answer_entry> made;
    if (found == net.names.end()) add_address(made, host);
    if (found != net.names.end())
      for (const std::string& text : found->second) add_address(made, text);
    if (made.empty()) return resolver_failure;
    *list = &made.front().info;
    net.answers[*list] = std::move(made);  // its entries stay where they are
    return 0;
  });
}

void tav_netsock_freeaddrinfo(tav_netsock_addrinfo* list) noexcept {
  const net_entry entry;
  entry.net.require(entry.net.answers.erase(list) == 1, "resolve", "has not given what is freed");
}

int32_t tav_netsock_socket(int32_t, int32_t, int32_t) noexcept {
  return answer("socket", "", [](fake_platform& net) {
    net.sockets[net.next_socket];
    return net.next_socket++;  // never used twice, so late uses are seen
  });
}

int32_t tav_netsock_set_scope(void* addr, int32_t addr_len) noexcept {
  return answer("set_scope", "", [=](fake_platform& net) {
    tav_netsock_sockaddr_in6 v6 = {};
    if (addr_len == sizeof v6) std::memcpy(&v6, addr, sizeof v6);
    if (!net.require(link_local(v6.addr), "set_scope", "of no link-local address"))
      return int32_t{TAV_NETSOCK_ERROR};
    v6.scope_id = fake_scope;
    std::memcpy(addr, &v6, sizeof v6);
    return 0;
  });
}

int32_t tav_netsock_connect_timeo(int32_t sock, const void* addr, int32_t addr_len,
                                  int32_t timeout_ms) noexcept {
  const net_entry entry;
  entry.net.begin("connect", timeout_ms);
  const std::string target = target_of(entry.net, addr, addr_len);
  fake_socket* const found = open_socket(entry.net, sock, "connect");
  return answer("connect", target, [&](fake_platform& net) {
    const bool allowed =
        found != nullptr && net.require(!found->peer, "connect", "of a connected socket");
    return allowed ? connect_to(net, *found, target) : int32_t{TAV_NETSOCK_ERROR};
  });
}

int32_t tav_netsock_send_timeo(int32_t sock, const void* data, int32_t len, int32_t,
                               int32_t timeout_ms) noexcept {
  return transfer("send", sock, timeout_ms, [=](fake_platform& net, fake_socket& to) {
    if (to.peer_gone) return int32_t{TAV_NETSOCK_ERROR};
    if (!to.implicit_tls && to.peer->actions.empty()) return net.give(to, data, len);
    to.peer_leaves();  // it expects a handshake, and these bytes are none
    return len;
  });
}

int32_t tav_netsock_recv_timeo(int32_t sock, void* data, int32_t len, int32_t,
                               int32_t timeout_ms) noexcept {
  return transfer("recv", sock, timeout_ms, [=](fake_platform& net, fake_socket& from) {
    if (from.has_inbound()) return net.take(from, data, len);
    return from.peer_gone ? 0 : int32_t{TAV_NETSOCK_TIMEOUT};
  });
}

int32_t tav_netsock_shutdown(int32_t sock) noexcept {
  const net_entry entry;
  fake_socket* const found = open_socket(entry.net, sock, "shutdown");
  return answer("shutdown", "", [=](fake_platform&) {
    if (found != nullptr) found->shut = true;
    return found != nullptr ? 0 : int32_t{TAV_NETSOCK_ERROR};
  });
}

// A close that fails has closed all the same, as the system's does.
int32_t tav_netsock_close(int32_t sock) noexcept {
  const net_entry entry;
  fake_platform& net = entry.net;
  const bool is_open = open_socket(net, sock, "close") != nullptr;
  for (const auto& [handle, context] : net.contexts)
    net.require(context.sock != sock, "close", "before TLS was ended");
  net.sockets.erase(sock);
  return answer("close", "",
                [=](fake_platform&) { return is_open ? 0 : int32_t{TAV_NETSOCK_ERROR}; });
}
