// fake_tlsw.cpp - tlsw.h on scripted peers: a flag instead of a cipher.

#include <algorithm>
#include <cstring>

#include "fake_net.h"
#include "tlsw.h"

namespace tav_test {
namespace {

// Codes of the wrapper are far above what one call moves.
bool is_code(int32_t moved) { return moved >= TLSW_ERR_PARAM; }

std::string handle_text(uint32_t handle) { return std::to_string(handle); }

// The handshake with the peer: it must be waiting for one, and must have nothing in flight that was
// said in clear.
int32_t shake_hands(fake_net& net, uint32_t context, int32_t handle, uint32_t* session) {
  const auto found = net.sockets.find(handle);
  if (found == net.sockets.end() || !found->second.connected || found->second.shut ||
      found->second.session != 0) {
    net.fault("tls_connect on socket " + std::to_string(handle) + ", which is not ready for it");
    return TLSW_ERR_PARAM;
  }
  fake_socket& sock = found->second;
  if (sock.has_inbound() || sock.peer_gone) return TLSW_ERR_CONNECT;
  const bool asked = sock.peer && !sock.peer->actions.empty();  // pump() leaves start_tls only
  if (!sock.implicit_tls && !asked) return TLSW_ERR_TIMEOUT;
  if (asked) sock.peer->actions.pop_front();
  *session = net.next_tls_handle++;
  net.sessions[*session] = {context, handle};
  sock.session = *session;
  if (sock.implicit_tls && sock.peer) sock.peer->connected(true);
  if (asked) sock.peer->tls_started();
  sock.implicit_tls = false;
  fake_net::pump(sock);
  return TLSW_OK;
}

// The socket that a session protects, or null.
fake_socket* protected_socket(fake_net& net, uint32_t session, net_call kind) {
  const auto found = net.sessions.find(session);
  if (found == net.sessions.end() || found->second.ended) {
    net.fault(std::string(name_of(kind)) + " on TLS session " + handle_text(session) +
              ", which is not active");
    return nullptr;
  }
  const auto sock = net.sockets.find(found->second.sock);
  if (sock == net.sockets.end() || sock->second.shut) {
    net.fault(std::string(name_of(kind)) + " on a socket that is closed or shut down");
    return nullptr;
  }
  return &sock->second;
}

// Frees the context and every session on it.
void drop_context(fake_net& net, uint32_t context) {
  for (auto it = net.sessions.begin(); it != net.sessions.end();) {
    if (it->second.context != context) {
      ++it;
      continue;
    }
    if (!it->second.ended) net.fault("tls_term of a session that was not shut down");
    const auto sock = net.sockets.find(it->second.sock);
    if (sock != net.sockets.end()) sock->second.session = 0;
    it = net.sessions.erase(it);
  }
  net.contexts.erase(context);
}

// A read or write: `move` gives the count of bytes that it moved, or an error.
template <typename Move>
int32_t transfer(net_call kind, uint32_t session, const void* data, int32_t len, int32_t timeout_ms,
                 int32_t* count, Move&& move) {
  net_entry entry;
  if (count == nullptr) return TLSW_ERR_PARAM;
  fake_net& net = *entry.net;
  net.begin(kind, timeout_ms);
  fake_socket* const sock = protected_socket(net, session, kind);
  const auto finish = [&](int32_t result, int32_t moved) {
    if (result == TLSW_OK) *count = moved;
    return net.transferred(kind, result, result == TLSW_OK ? moved : -1);
  };
  if (const auto result = net.forced(kind)) return finish(*result, 0);
  if (sock == nullptr || data == nullptr || len < 0) return finish(TLSW_ERR_PARAM, 0);
  const int32_t moved = move(net, *sock);
  return is_code(moved) ? finish(moved, 0) : finish(TLSW_OK, moved);
}

}  // namespace
}  // namespace tav_test

using tav_test::fake_net;
using tav_test::fake_socket;
using tav_test::net_call;
using tav_test::net_entry;

int32_t tlsw_init(uint32_t* context) noexcept {
  net_entry entry;
  if (context == nullptr) return TLSW_ERR_PARAM;
  if (const auto result = entry.net->forced(net_call::tls_init))
    return entry.net->done(net_call::tls_init, *result);
  *context = entry.net->next_tls_handle++;
  entry.net->contexts.insert(*context);
  return entry.net->done(net_call::tls_init, TLSW_OK);
}

int32_t tlsw_connect_timeo(uint32_t context, const TLSW_CONNECT_PARAM* param,
                           uint32_t* session) noexcept {
  net_entry entry;
  if (param == nullptr || session == nullptr) return TLSW_ERR_PARAM;
  auto& net = *entry.net;
  const auto finish = [&](int32_t result) { return net.done(net_call::tls_connect, result); };
  net.begin(net_call::tls_connect, param->timeout_ms);
  std::memcpy(net.tls_records.emplace_back().data(), param, sizeof *param);
  if (net.contexts.count(context) == 0) {
    net.fault("tls_connect on TLS context " + tav_test::handle_text(context) + ", which is none");
    return finish(TLSW_ERR_PARAM);
  }
  if (const auto result = net.forced(net_call::tls_connect)) return finish(*result);
  return finish(tav_test::shake_hands(net, context, param->sock, session));
}

int32_t tlsw_read_timeo(uint32_t session, void* data, int32_t len, int32_t timeout_ms,
                        int32_t* count) noexcept {
  const auto read = [=](fake_net& net, fake_socket& sock) {
    if (net.has_more(sock)) return net.take(sock, data, len);
    return sock.peer_gone ? 0 : int32_t{TLSW_ERR_TIMEOUT};
  };
  return tav_test::transfer(net_call::tls_read, session, data, len, timeout_ms, count, read);
}

int32_t tlsw_write_timeo(uint32_t session, const void* data, int32_t len, int32_t timeout_ms,
                         int32_t* count) noexcept {
  const auto write = [=](fake_net& net, fake_socket& sock) {
    if (sock.peer_gone) return int32_t{TLSW_ERR_WRITE};
    return sock.peer ? net.give(sock, data, len) : len;
  };
  return tav_test::transfer(net_call::tls_write, session, data, len, timeout_ms, count, write);
}

// A shutdown that fails has ended the session all the same: there is nothing else to do with it.
int32_t tlsw_shutdown(uint32_t session) noexcept {
  net_entry entry;
  auto& net = *entry.net;
  fake_socket* const sock = tav_test::protected_socket(net, session, net_call::tls_shutdown);
  const auto forced = net.forced(net_call::tls_shutdown);
  const auto found = net.sessions.find(session);
  if (found != net.sessions.end()) found->second.ended = true;
  if (sock != nullptr) tav_test::fake_net::peer_leaves(*sock);
  const int32_t result = sock ? TLSW_OK : TLSW_ERR_PARAM;
  return net.done(net_call::tls_shutdown, forced.value_or(result));
}

int32_t tlsw_term(uint32_t context) noexcept {
  net_entry entry;
  auto& net = *entry.net;
  const auto forced = net.forced(net_call::tls_term);
  const bool known = net.contexts.count(context) != 0;
  if (known)
    tav_test::drop_context(net, context);
  else
    net.fault("tls_term of TLS context " + tav_test::handle_text(context) + ", which is none");
  return net.done(net_call::tls_term, forced.value_or(known ? TLSW_OK : TLSW_ERR_PARAM));
}
