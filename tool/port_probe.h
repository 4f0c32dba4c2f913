// port_probe.h - a look at what a port speaks, before the library goes there.

#ifndef PORT_PROBE_H
#define PORT_PROBE_H

#include <chrono>
#include <functional>
#include <string>

#include "endpoint_options.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"

namespace tavmail {

// A connection of its own. Nothing that is said over it is secret, so certificates are not checked.
class port_probe {
 public:
  // `timeout` is in milliseconds, here and below.
  port_probe(const std::string& host, int port, long timeout);
  port_probe(const port_probe&) = delete;
  port_probe& operator=(const port_probe&) = delete;
  ~port_probe();

  quorvelmida::TAV_EML_RESULT result() const { return m_result; }
  std::chrono::milliseconds waited() const { return m_waited; }

  enum class handshake { done, refused, no_tls, silence };
  // `refused`: the server speaks TLS, although it came to no session.
  handshake start_tls(long timeout);

  // What the server sends until it `is_enough`, as far as it comes in time; at most 4 KiB.
  std::string read(const std::function<bool(const std::string&)>& is_enough, long timeout);
  void send(const std::string& text);
  // True when the server ended the connection.
  bool is_over() const { return m_over; }

 private:
  quorvelmida::tav_eml_mlutl_mail_net m_net;
  int m_sock = 0;
  quorvelmida::TAV_EML_TLS_INFO m_tls;
  quorvelmida::TAV_EML_RESULT m_result;
  std::chrono::milliseconds m_waited{0};
  bool m_over = false;
};

// What a port speaks.
struct port_look {
  bool is_tls = false;   // from the first byte
  std::string greeting;  // "" when it kept silent
  std::string offer;     // the reply to CAPA of a POP3 server
};

// Looks over `first`, which is connected to `address`, and where that is not enough over others.
port_look look_at(port_probe& first, const std::string& address, const endpoint_options& options,
                  bool is_pop3);

}  // namespace tavmail

#endif
