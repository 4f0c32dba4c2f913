// connection.h - carries bytes between a socket and a session, through TLS once that is on, and
// does what the session asks for at its time.

#ifndef MAILHOST_CONNECTION_H
#define MAILHOST_CONNECTION_H

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "session.h"
#include "tls_channel.h"

namespace mailhost {

class file_descriptor {
 public:
  explicit file_descriptor(int fd) : m_fd(fd) {}
  file_descriptor(file_descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  file_descriptor& operator=(file_descriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~file_descriptor() {
    if (m_fd >= 0) close(m_fd);
  }
  int get() const { return m_fd; }

 private:
  int m_fd;
};

class connection {
 public:
  using clock = std::chrono::steady_clock;

  struct limits {
    std::chrono::seconds idle{300};   // without a byte in either direction
    std::chrono::seconds life{3600};  // in all
  };

  // With `tls_first` the handshake comes before anything else.
  connection(file_descriptor socket, std::unique_ptr<session> peer, const tls_context& tls,
             bool tls_first, const limits& bounds);
  ~connection() { m_session->closed(); }
  connection(const connection&) = delete;
  connection& operator=(const connection&) = delete;

  pollfd interest() const;
  // When there is something to do although no byte moves.
  clock::time_point due() const;
  void serve(short events);
  bool is_over() const { return m_isOver; }

 private:
  bool is_shaking_hands() const { return m_tls && !m_tls->is_ready(); }
  bool wants_bytes() const;
  void check_time();
  void receive();
  void receive_protected(std::string_view bytes);
  bool step();
  void send_piece(action& what);
  void begin_tls() { m_tls = std::make_unique<tls_channel>(m_context); }
  void hang_up();
  void reset();
  void flush();

  file_descriptor m_socket;
  std::unique_ptr<session> m_session;
  const tls_context& m_context;
  limits m_limits;
  std::unique_ptr<tls_channel> m_tls;
  bool m_tlsFirst;
  std::string m_out;         // for the socket
  size_t m_sent = 0;         // bytes of the action in front that are on their way
  bool m_hasMore = false;    // to do, when the other connections had their turn
  bool m_isClosing = false;  // our side is done; waits for the client to close
  bool m_isWriteShut = false;
  bool m_isOver = false;
  clock::time_point m_born, m_lastMove, m_pauseEnd, m_lingerEnd;
};

}  // namespace mailhost

#endif
