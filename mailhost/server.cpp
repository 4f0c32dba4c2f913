#include "server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace mailhost {
namespace {

using clock = connection::clock;

struct address_free {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using address_owner = std::unique_ptr<addrinfo, address_free>;

address_owner resolve(const std::string& address, uint16_t port) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    throw std::runtime_error("\"" + address + "\" is no IP address");
  return address_owner(found);
}

uint16_t port_of(int socket) {
  sockaddr_storage own = {};
  socklen_t length = sizeof own;
  getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length);
  // The port stands at the same place in both kinds of address.
  sockaddr_in as_v4 = {};
  std::memcpy(&as_v4, &own, sizeof as_v4);
  return ntohs(as_v4.sin_port);
}

std::string name_of(const sockaddr_storage& peer, socklen_t length) {
  char text[NI_MAXHOST] = "?";
  getnameinfo(reinterpret_cast<const sockaddr*>(&peer), length, text, sizeof text, nullptr, 0,
              NI_NUMERICHOST);
  return text;
}

}  // namespace

uint16_t server::listen(const std::string& address, uint16_t port, protocol speaks,
                        bool tls_first) {
  const address_owner where = resolve(address, port);
  const int type = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
  file_descriptor fd(socket(where->ai_family, type, 0));
  const int on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (fd.get() < 0 || bind(fd.get(), where->ai_addr, where->ai_addrlen) != 0 ||
      ::listen(fd.get(), SOMAXCONN) != 0) {
    const bool is_taken = errno == EADDRINUSE;
    throw std::runtime_error("cannot listen on " + address + " port " + std::to_string(port) +
                             ": " + std::strerror(errno) +
                             (is_taken ? "; --any-port takes free ones" : ""));
  }
  const uint16_t chosen = port_of(fd.get());
  m_listeners.push_back({std::move(fd), speaks, tls_first});
  return chosen;
}

void server::accept_on(const listener& from) {
  sockaddr_storage peer = {};
  socklen_t length = sizeof peer;
  file_descriptor fd(accept4(from.socket.get(), reinterpret_cast<sockaddr*>(&peer), &length,
                             SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (fd.get() < 0) return;
  const int on = 1;
  setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  m_connections.push_back(std::make_unique<connection>(
      std::move(fd), m_host.connect(from.speaks, name_of(peer, length)), m_tls, from.tls_first,
      m_limits));
}

// Milliseconds until the first that is due, rounded up.
int server::time_to_wait(clock::time_point end) const {
  clock::time_point first = end;
  for (const auto& link : m_connections) first = std::min(first, link->due());
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(first - clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(wait, 0, 60000));
}

void server::run(int stop, clock::time_point end) {
  while (clock::now() < end) {
    std::vector<pollfd> polls = {{stop, POLLIN, 0}};
    for (const auto& link : m_connections) polls.push_back(link->interest());
    if (m_connections.size() < at_once)
      for (const listener& from : m_listeners) polls.push_back({from.socket.get(), POLLIN, 0});
    poll(polls.data(), polls.size(), time_to_wait(end));
    if (polls[0].revents != 0) break;

    const size_t served = m_connections.size();
    for (size_t i = 0; i < served; ++i)
      if (polls[i + 1].revents != 0 || m_connections[i]->due() <= clock::now())
        m_connections[i]->serve(polls[i + 1].revents);
    for (size_t i = served + 1; i < polls.size(); ++i)
      if (polls[i].revents != 0) accept_on(m_listeners[i - served - 1]);
    m_connections.erase(std::remove_if(m_connections.begin(), m_connections.end(),
                                       [](const auto& link) { return link->is_over(); }),
                        m_connections.end());
  }
  m_connections.clear();
}

}  // namespace mailhost
