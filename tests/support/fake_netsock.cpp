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

}  // namespace
}  // namespace tav_test

using tav_test::fake_socket;
using tav_test::net_call;
using tav_test::net_entry;

int32_t tav_netsock_getaddrinfo(const char* host, const char* service,
                                const tav_netsock_addrinfo* hints,
                                tav_netsock_addrinfo** list) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return tav_test::resolver_failure;
  const std::string name = host ? host : "(null)";
  const auto finish = [&](int32_t result) {
    return entry.net->done(net_call::resolve, result, name);
  };
  if (const auto result = entry.net->forced(net_call::resolve)) return finish(*result);
  if (host == nullptr || list == nullptr) {
    entry.net->fault("resolve without a name or a place for the answer");
    return finish(TAV_NETSOCK_ERROR);
  }
  if (service != nullptr) entry.net->fault("resolve with a service, which is not faked");
  const auto found = entry.net->names.find(name);
  const bool is_known = found != entry.net->names.end();
  tav_test::fake_answer answer;
  for (const std::string& text : is_known ? found->second : std::vector<std::string>{name})
    tav_test::add_address(answer, text, hints ? hints->family : int32_t{TAV_NETSOCK_UNSPEC});
  if (answer.entries.empty() && !is_known) return finish(tav_test::resolver_failure);
  tav_netsock_addrinfo* const head =
      answer.entries.empty() ? nullptr : &answer.entries.front().info;
  if (head != nullptr) entry.net->answers.push_back(std::move(answer));
  *list = head;
  return finish(0);
}

void tav_netsock_freeaddrinfo(tav_netsock_addrinfo* list) noexcept {
  net_entry entry;
  if (entry.net == nullptr || list == nullptr) return;
  auto& answers = entry.net->answers;
  const auto found = std::find_if(answers.begin(), answers.end(), [list](const auto& answer) {
    return &answer.entries.front().info == list;
  });
  if (found == answers.end()) return entry.net->fault("free of something not a resolver answer");
  answers.erase(found);
}

int32_t tav_netsock_socket(int32_t family, int32_t type, int32_t) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return TAV_NETSOCK_ERROR;
  if (const auto result = entry.net->forced(net_call::socket))
    return entry.net->done(net_call::socket, *result);
  const bool known =
      (family == TAV_NETSOCK_INET || family == TAV_NETSOCK_INET6) && type == TAV_NETSOCK_STREAM;
  if (!known) {
    entry.net->fault("socket of an unknown family or type");
    return entry.net->done(net_call::socket, TAV_NETSOCK_ERROR);
  }
  const int32_t handle = entry.net->next_socket++;  // never used twice, so late uses are seen
  entry.net->sockets[handle].family = family;
  return entry.net->done(net_call::socket, handle);
}

int32_t tav_netsock_set_scope(void* addr, int32_t addr_len) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return TAV_NETSOCK_ERROR;
  if (const auto result = entry.net->forced(net_call::set_scope))
    return entry.net->done(net_call::set_scope, *result);
  tav_netsock_sockaddr_in6 v6 = {};
  if (addr != nullptr && addr_len == sizeof v6) std::memcpy(&v6, addr, sizeof v6);
  if (v6.family != TAV_NETSOCK_INET6 || !tav_test::link_local(v6.addr)) {
    entry.net->fault("set_scope of something not a link-local address");
    return entry.net->done(net_call::set_scope, TAV_NETSOCK_ERROR);
  }
  v6.scope_id = tav_test::fake_scope;
  std::memcpy(addr, &v6, sizeof v6);
  return entry.net->done(net_call::set_scope, 0);
}

int32_t tav_netsock_connect_timeo(int32_t sock, const void* addr, int32_t addr_len,
                                  int32_t timeout_ms) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return TAV_NETSOCK_ERROR;
  auto& net = *entry.net;
  const std::string target = tav_test::target_of(net, addr, addr_len);
  const auto finish = [&](int32_t result) {
    return net.done(net_call::connect, result, target.empty() ? "?" : target);
  };
  net.begin(net_call::connect, timeout_ms);
  fake_socket* const found = tav_test::open_socket(net, sock, net_call::connect);
  if (const auto result = net.forced(net_call::connect)) return finish(*result);
  if (found == nullptr) return finish(TAV_NETSOCK_ERROR);
  const bool v6 = target.substr(0, 1) == "[";
  if (target.empty() || (found->family == TAV_NETSOCK_INET6) != v6) {
    net.fault("connect to an address that does not fit the socket");
    return finish(TAV_NETSOCK_ERROR);
  }
  if (found->connected) {
    net.fault("connect of a connected socket");
    return finish(TAV_NETSOCK_ERROR);
  }
  return finish(tav_test::connect_to(net, *found, target));
}

int32_t tav_netsock_send_timeo(int32_t sock, const void* data, int32_t len, int32_t,
                               int32_t timeout_ms) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return TAV_NETSOCK_ERROR;
  auto& net = *entry.net;
  const auto finish = [&](int32_t result) {
    return net.transferred(net_call::send, result, result);
  };
  net.begin(net_call::send, timeout_ms);
  fake_socket* const found = tav_test::open_socket(net, sock, net_call::send);
  const bool allowed = found && tav_test::may_transfer(net, *found, net_call::send, data, len);
  if (const auto result = net.forced(net_call::send)) return finish(std::min(*result, 0));
  return finish(allowed ? tav_test::send_to(net, *found, data, len) : TAV_NETSOCK_ERROR);
}

int32_t tav_netsock_recv_timeo(int32_t sock, void* data, int32_t len, int32_t,
                               int32_t timeout_ms) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return TAV_NETSOCK_ERROR;
  auto& net = *entry.net;
  const auto finish = [&](int32_t result) {
    return net.transferred(net_call::recv, result, result);
  };
  net.begin(net_call::recv, timeout_ms);
  fake_socket* const found = tav_test::open_socket(net, sock, net_call::recv);
  const bool allowed = found && tav_test::may_transfer(net, *found, net_call::recv, data, len);
  if (const auto result = net.forced(net_call::recv)) return finish(std::min(*result, 0));
  if (!allowed) return finish(TAV_NETSOCK_ERROR);
  if (net.has_more(*found)) return finish(net.take(*found, data, len));
  return finish(found->peer_gone ? 0 : TAV_NETSOCK_TIMEOUT);
}

int32_t tav_netsock_shutdown(int32_t sock) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return TAV_NETSOCK_ERROR;
  fake_socket* const found = tav_test::open_socket(*entry.net, sock, net_call::shutdown);
  if (const auto result = entry.net->forced(net_call::shutdown))
    return entry.net->done(net_call::shutdown, *result);
  if (found != nullptr) found->shut = true;
  return entry.net->done(net_call::shutdown, found ? 0 : TAV_NETSOCK_ERROR);
}

// A close that fails has closed all the same, as the system's does.
int32_t tav_netsock_close(int32_t sock) noexcept {
  net_entry entry;
  if (entry.net == nullptr) return TAV_NETSOCK_ERROR;
  auto& net = *entry.net;
  fake_socket* const found = tav_test::open_socket(net, sock, net_call::close);
  const auto forced = net.forced(net_call::close);
  if (found == nullptr) return net.done(net_call::close, TAV_NETSOCK_ERROR);
  for (const auto& session : net.sessions)
    if (session.second.sock == sock) net.fault("socket closed before its TLS was ended");
  if (found->peer) found->peer->closed();
  net.sockets.erase(sock);
  return net.done(net_call::close, forced.value_or(0));
}
