// socket_fixture.h - connections of the port to sockets of the test itself, and a wait of each
// kind.

#ifndef SOCKET_FIXTURE_H
#define SOCKET_FIXTURE_H

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "osw.h"
#include "tav_netsock.h"
#include "tlsw.h"

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

// A connection with both ends in this process.
struct pair {
  explicit pair(int buffer = 0) {
    if (buffer > 0) server.keep_small(buffer);
    ours = connect_to(server.port());
    theirs = server.accept();
  }
  ~pair() {
    tav_netsock_close(ours);
    close_theirs();
  }
  void close_theirs() {
    if (theirs >= 0) close(theirs);
    theirs = -1;
  }
  listener server;
  int32_t ours;
  int theirs;
};

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

// A wait of each kind for a peer that does nothing, with a limit in milliseconds.
struct waiting {
  const char* name;
  int32_t (*run)(const pair& p, int32_t limit);
  int32_t result;
};
const waiting kWaits[] = {
    {"receive",
     [](const pair& p, int32_t limit) {
       char byte;
       return tav_netsock_recv_timeo(p.ours, &byte, 1, 0, limit);
     },
     TAV_NETSOCK_TIMEOUT},
    {"send",  // the system takes a little more each time, until it is full
     [](const pair& p, int32_t limit) {
       const std::string much(1 << 20, 'x');
       int32_t sent = 1;
       while (sent > 0) sent = tav_netsock_send_timeo(p.ours, much.data(), 1 << 20, 0, limit);
       return sent;
     },
     TAV_NETSOCK_TIMEOUT},
    {"connect",  // a listener whose queue is full answers nothing more
     [](const pair& p, int32_t limit) {
       std::vector<int32_t> queued = {1};
       while (queued.back() > 0 && queued.size() < 12)
         queued.push_back(connect_to(p.server.port(), limit));
       for (size_t i = 1; i < queued.size(); ++i) tav_netsock_close(queued[i]);
       return queued.back();
     },
     TAV_NETSOCK_TIMEOUT},
    {"handshake",
     [](const pair& p, int32_t limit) {
       uint32_t context = 0, session = 0;
       tlsw_init(&context);
       const TLSW_CONNECT_PARAM param{p.ours, static_cast<uint32_t>(limit), {}, {}};
       const int32_t result = tlsw_connect_timeo(context, &param, &session);
       tlsw_term(context);
       return result;
     },
     TLSW_ERR_TIMEOUT},
    {"sleep", [](const pair&, int32_t limit) { return osw_Sleep(limit), 0; }, 0},
};

}  // namespace contract

#endif
