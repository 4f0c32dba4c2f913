// socket_fixture.h - listening sockets of the test itself, and the port's sockets with an owner.

#ifndef SOCKET_FIXTURE_H
#define SOCKET_FIXTURE_H

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "tav_netsock.h"

namespace contract {

// A plain socket that listens on 127.0.0.1.
class listener {
 public:
  listener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(m_fd, 8);
    socklen_t length = sizeof address;
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
  }
  ~listener() { stop(); }
  listener(const listener&) = delete;
  listener& operator=(const listener&) = delete;

  uint16_t port() const { return m_port; }
  // Little is under way to the connections to come, in bytes.
  void keep_small(int buffer) {
    const int segment = 1400;
    setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    setsockopt(m_fd, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
  }
  int accept() const { return ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC); }
  void stop() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }

 private:
  int m_fd;
  uint16_t m_port;
};

inline tav_netsock_sockaddr_in loopback(uint16_t port) {
  tav_netsock_sockaddr_in address{};
  address.family = TAV_NETSOCK_INET;
  address.port = htons(port);
  const uint8_t octets[4] = {127, 0, 0, 1};
  std::memcpy(address.addr, octets, sizeof octets);
  return address;
}

// Resolves `host` and connects to its IPv4 address: the handle, or the result of the connect.
inline int32_t connect_to(const std::string& host, uint16_t port, int32_t timeout_ms = 2000) {
  tav_netsock_addrinfo hints{};
  hints.socket_type = TAV_NETSOCK_STREAM;
  tav_netsock_addrinfo* list = nullptr;
  if (tav_netsock_getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return -100;
  tav_netsock_freeaddrinfo(list);
  const auto address = loopback(port);
  const int32_t sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
  const int32_t result = tav_netsock_connect_timeo(sock, &address, sizeof address, timeout_ms);
  if (result == 0) return sock;
  tav_netsock_close(sock);
  return result;
}

// Milliseconds since the construction.
class stopwatch {
 public:
  int64_t elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - m_start).count();
  }

 private:
  using clock = std::chrono::steady_clock;
  const clock::time_point m_start = clock::now();
};

}  // namespace contract

#endif
