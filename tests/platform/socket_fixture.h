// socket_fixture.h - connections of the port to sockets of the test itself.

#ifndef SOCKET_FIXTURE_H
#define SOCKET_FIXTURE_H

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tav_netsock.h"
#include "waits.h"

namespace contract {

// 0, and the addresses are forgotten again; the port remembers the name.
inline int32_t resolve(const char* host) {
  tav_netsock_addrinfo* list = nullptr;
  const int32_t result = tav_netsock_getaddrinfo(host, nullptr, nullptr, &list);
  tav_netsock_freeaddrinfo(list);
  return result;
}

// To 127.0.0.1: the handle, or the result of the connect.
inline int32_t connect_to(uint16_t port, int32_t timeout_ms = 2000) {
  const tav_netsock_sockaddr_in address{TAV_NETSOCK_INET, htons(port), {127, 0, 0, 1}, {}};
  const int32_t sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
  const int32_t result = tav_netsock_connect_timeo(sock, &address, sizeof address, timeout_ms);
  if (result == 0) return sock;
  tav_netsock_close(sock);
  return result;
}

// A connection with both ends in this process. With `buffer` little is under way, in bytes.
struct pair {
  explicit pair(int buffer = 0) : server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(server, reinterpret_cast<sockaddr*>(&address), length);
    listen(server, 8);
    getsockname(server, reinterpret_cast<sockaddr*>(&address), &length);
    const int segment = 1400;
    if (buffer > 0) {
      setsockopt(server, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
      setsockopt(server, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
    }
    port = ntohs(address.sin_port);
    ours = connect_to(port);
    theirs = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
  }
  ~pair() {
    close_ours();
    close_theirs();
    close(server);
  }
  void close_ours() {
    if (ours > 0) tav_netsock_close(ours);
    ours = 0;
  }
  void close_theirs(bool is_reset = false) {
    const linger at_once = {1, 0};
    if (is_reset) setsockopt(theirs, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    if (theirs >= 0) close(theirs);
    theirs = -1;
  }
  const int server;
  uint16_t port;
  int32_t ours;
  int theirs;
};

// Sends until it does not work any more, and gives the result.
inline int32_t fill(int32_t sock, int32_t limit) {
  const std::string much(1 << 20, 'x');
  int32_t sent = 1;
  while (sent > 0) sent = tav_netsock_send_timeo(sock, much.data(), 1 << 20, 0, limit);
  return sent;
}

inline int32_t receive_byte(int32_t sock, int32_t limit) {
  char byte;
  return tav_netsock_recv_timeo(sock, &byte, 1, 0, limit);
}

inline const std::vector<waiting> kSocketWaits = {
    {"receive", [](int32_t limit) { return receive_byte(pair().ours, limit); },
     TAV_NETSOCK_TIMEOUT},
    {"send", [](int32_t limit) { return fill(pair().ours, limit); }, TAV_NETSOCK_TIMEOUT},
    {"connect",  // a listener whose queue is full answers nothing more
     [](int32_t limit) {
       const pair p;
       std::vector<int32_t> queued = {1};
       while (queued.back() > 0 && queued.size() < 12) queued.push_back(connect_to(p.port, limit));
       for (size_t i = 1; i < queued.size(); ++i) tav_netsock_close(queued[i]);
       return queued.back();
     },
     TAV_NETSOCK_TIMEOUT},
};

}  // namespace contract

#endif
