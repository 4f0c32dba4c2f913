// loopback_server.h - runs mail hosts on real sockets of 127.0.0.1, with TLS by OpenSSL.
//
//   loopback_server server(certificates);
//   const uint16_t port = server.listen(host);
//   server.start();
//   ... clients ...
//   server.stop();                      // from here on the host's records may be read
//
// One thread serves all listeners and connections, so hosts need no locks. It ends by itself when
// its time is over.

#ifndef TESTS_SUPPORT_LOOPBACK_SERVER_H
#define TESTS_SUPPORT_LOOPBACK_SERVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "mail_peer.h"
#include "test_certificates.h"

namespace tav_test {

struct loopback_limits {
  std::chrono::seconds life{60};
  size_t connections = 1000;  // accepted in all
  size_t at_once = 50;        // more wait to be accepted
};

class loopback_server {
 public:
  using limits = loopback_limits;

  // Without certificates the server knows no TLS: a peer that asks for it is cut off. These and
  // listen() throw std::runtime_error.
  explicit loopback_server(const certificate_files& certificates = {}, const limits& bounds = {});
  ~loopback_server();  // stops
  loopback_server(const loopback_server&) = delete;
  loopback_server& operator=(const loopback_server&) = delete;

  // Before start(). Port 0 lets the system choose; the result is the port. The host outlives the
  // server.
  uint16_t listen(mail_host& host, tls_mode mode = tls_mode::plain, uint16_t port = 0);
  // Once true, no more connections are accepted and the server ends with the last one. Asked on the
  // server's thread. Before start().
  void finish_when(std::function<bool()> done);

  void start();
  void wait();  // until the server ends by itself
  void stop();  // ends it now

 private:
  class engine;

  std::unique_ptr<engine> m_engine;
  std::thread m_thread;
};

}  // namespace tav_test

#endif
