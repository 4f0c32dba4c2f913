// server.h - listens, and serves all connections in one thread.

#ifndef MAILHOST_SERVER_H
#define MAILHOST_SERVER_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "mail_host.h"

namespace mailhost {

class server {
 public:
  static constexpr size_t at_once = 50;  // more clients wait to be accepted

  // Both outlive the server.
  server(mail_host& host, const tls_context& tls, const connection::limits& bounds)
      : m_host(host), m_tls(tls), m_limits(bounds) {}

  // Port 0 lets the system choose; the result is the port. Throws std::runtime_error.
  uint16_t listen(const std::string& address, uint16_t port, protocol speaks, bool tls_first);

  // Until `stop` can be read or the time is over.
  void run(int stop, connection::clock::time_point end);

 private:
  struct listener {
    file_descriptor socket;
    protocol speaks;
    bool tls_first;
  };

  void accept_on(const listener& from);
  int time_to_wait(connection::clock::time_point end) const;

  mail_host& m_host;
  const tls_context& m_tls;
  connection::limits m_limits;
  std::vector<listener> m_listeners;
  std::vector<std::unique_ptr<connection>> m_connections;
};

}  // namespace mailhost

#endif
