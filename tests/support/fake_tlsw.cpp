// fake_tlsw.cpp - tlsw.h on scripted peers: a flag instead of a cipher.

#include "fake_platform.h"

namespace tav_test {
namespace {

constexpr uint32_t session_bit = 0x10000;  // a session's handle is the context's with this

// The handshake with the peer: it must be waiting for one, and must have nothing in flight that was
// said in clear.
int32_t shake_hands(fake_platform& net, uint32_t context, int32_t handle, uint32_t* session) {
  const auto found = net.sockets.find(handle);
  const bool ready = found != net.sockets.end() && found->second.peer && !found->second.shut &&
                     !found->second.under_tls;
  if (!net.require(ready, "tls_connect", "on a socket that is not ready for it"))
    return TLSW_ERR_PARAM;
  fake_socket& sock = found->second;
  if (sock.has_inbound() || sock.peer_gone) return TLSW_ERR_CONNECT;
  const bool asked = !sock.peer->actions.empty();  // pump() leaves start_tls only
  if (!sock.implicit_tls && !asked) return TLSW_ERR_TIMEOUT;
  if (asked) sock.peer->actions.pop_front();
  *session = context | session_bit;
  net.contexts[context] = {handle, true};
  sock.under_tls = true;
  asked ? sock.peer->tls_started() : sock.peer->connected(true);
  sock.implicit_tls = false;
  net.pump(sock);
  return TLSW_OK;
}

// The socket that a session protects, or null.
fake_socket* protected_socket(fake_platform& net, uint32_t session, const std::string& kind) {
  const auto context = net.contexts.find(session ^ session_bit);
  const bool is_active = context != net.contexts.end() && context->second.is_active;
  if (!net.require(is_active, kind, "on a TLS session that is not active")) return nullptr;
  const auto sock = net.sockets.find(context->second.sock);
  const bool is_open = sock != net.sockets.end() && !sock->second.shut;
  return net.require(is_open, kind, "on a socket that is closed") ? &sock->second : nullptr;
}

// A read or write: `move` moves bytes, whose count goes to `count`, or gives an error.
template <typename Move>
int32_t transfer(const std::string& kind, uint32_t session, int32_t timeout_ms, int32_t* count,
                 Move&& move) {
  const net_entry entry;
  fake_platform& net = entry.net;
  net.begin(kind, timeout_ms);
  fake_socket* const sock = protected_socket(net, session, kind);
  const auto forced = net.forced(kind);
  const int32_t result = forced ? *forced : sock != nullptr ? move(net, *sock) : TLSW_ERR_PARAM;
  return net.transferred(kind, result, result == TLSW_OK ? *count : -1);
}

}  // namespace
}  // namespace tav_test

using namespace tav_test;

int32_t tlsw_init(uint32_t* context) noexcept {
  return answer("tls_init", "", [=](fake_platform& net) {
    net.contexts[*context = net.next_context++];
    return int32_t{TLSW_OK};
  });
}

int32_t tlsw_connect_timeo(uint32_t context, const TLSW_CONNECT_PARAM* param,
                           uint32_t* session) noexcept {
  const net_entry entry;
  entry.net.begin("tls_connect", param->timeout_ms);
  std::string options;
  for (const uint8_t byte : param->option)
    options += (options.empty() ? "" : " ") + std::to_string(byte);
  const bool known =
      entry.net.require(entry.net.contexts.count(context) != 0, "tls_connect", "without a context");
  return answer("tls_connect", options, [=](fake_platform& net) {
    return known ? shake_hands(net, context, param->sock, session) : int32_t{TLSW_ERR_PARAM};
  });
}

int32_t tlsw_read_timeo(uint32_t session, void* data, int32_t len, int32_t timeout_ms,
                        int32_t* count) noexcept {
  return transfer("tls_read", session, timeout_ms, count,
                  [=](fake_platform& net, fake_socket& sock) -> int32_t {
                    if (!sock.has_inbound() && !sock.peer_gone) return TLSW_ERR_TIMEOUT;
                    *count = sock.has_inbound() ? net.take(sock, data, len) : 0;
                    return TLSW_OK;
                  });
}

int32_t tlsw_write_timeo(uint32_t session, const void* data, int32_t len, int32_t timeout_ms,
                         int32_t* count) noexcept {
  return transfer("tls_write", session, timeout_ms, count,
                  [=](fake_platform& net, fake_socket& sock) -> int32_t {
                    if (sock.peer_gone) return TLSW_ERR_WRITE;
                    *count = net.give(sock, data, len);
                    return TLSW_OK;
                  });
}

// A shutdown that fails has ended the session all the same: there is nothing else to do with it.
int32_t tlsw_shutdown(uint32_t session) noexcept {
  const net_entry entry;
  fake_socket* const sock = protected_socket(entry.net, session, "tls_shutdown");
  entry.net.contexts[session ^ session_bit].is_active = false;
  if (sock != nullptr) sock->peer_leaves();
  return answer("tls_shutdown", "", [=](fake_platform&) {
    return int32_t{sock != nullptr ? TLSW_OK : TLSW_ERR_PARAM};
  });
}

int32_t tlsw_term(uint32_t context) noexcept {
  const net_entry entry;
  fake_platform& net = entry.net;
  const auto found = net.contexts.find(context);
  const bool known = net.require(found != net.contexts.end(), "tls_term", "without a context");
  if (known) {
    net.require(!found->second.is_active, "tls_term", "of a session that is not shut down");
    const auto sock = net.sockets.find(found->second.sock);
    if (sock != net.sockets.end()) sock->second.under_tls = false;
    net.contexts.erase(found);
  }
  return answer("tls_term", "",
                [=](fake_platform&) { return int32_t{known ? TLSW_OK : TLSW_ERR_PARAM}; });
}
