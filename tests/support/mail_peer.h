// mail_peer.h - the server's side of one connection, apart from any transport.
//
// A peer is told what happens and queues what it wants done; it never blocks and knows no socket.
// So the same protocol code answers the scripted platform of the tests (fake_platform.h) and whatever
// else can carry bytes. A peer that queues nothing is silent.

#ifndef TESTS_SUPPORT_MAIL_PEER_H
#define TESTS_SUPPORT_MAIL_PEER_H

#include <deque>
#include <memory>
#include <string>
#include <string_view>

namespace tav_test {

struct peer_action {
  enum kind_type { send, start_tls, close };
  kind_type kind;
  std::string bytes = {};  // of send
};

class mail_peer {
 public:
  virtual ~mail_peer() = default;

  // The connection stands; with `tls` the handshake is already done (implicit TLS).
  virtual void connected(bool tls) = 0;
  virtual void received(std::string_view bytes) = 0;
  // The handshake asked for by start_tls is done.
  virtual void tls_started() = 0;
  // The client is gone.
  virtual void closed() = 0;
  // The client waits, and all that was said has reached it. Only the scripted platform calls this,
  // for peers that never come to an end.
  virtual void starved() {}

  // What is to be done, oldest first. The transport takes entries from the front.
  std::deque<peer_action> actions;
};

// Makes a peer for each connection, and keeps what they have in common. Outlives its peers.
class mail_host {
 public:
  virtual ~mail_host() = default;
  virtual std::unique_ptr<mail_peer> accept() = 0;
};

enum class tls_mode { plain, implicit };

}  // namespace tav_test

#endif
