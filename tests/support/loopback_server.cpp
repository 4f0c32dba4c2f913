#include "loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tls_channel.h"

namespace tav_test {
namespace {

using clock = std::chrono::steady_clock;

// How long a connection that we hang up may still bring bytes. Closing at once would make the
// system send a reset, which may overtake our last words.
constexpr std::chrono::seconds linger{2};
constexpr std::chrono::milliseconds tick{200};

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

int require(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string("loopback server: cannot ") + what);
  return result;
}

bool would_block() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

// One connection: carries bytes between the socket and the peer, through TLS once that is on.
class connection {
 public:
  connection(file_descriptor fd, std::unique_ptr<mail_peer> peer, tls_context* tls, tls_mode mode)
      : m_fd(std::move(fd)), m_peer(std::move(peer)), m_tlsContext(tls) {
    if (mode == tls_mode::implicit) {
      m_implicit = true;
      begin_tls();
    } else {
      m_peer->connected(false);
      perform();
    }
  }
  connection(const connection&) = delete;
  connection& operator=(const connection&) = delete;

  pollfd interest() const {
    const short events = static_cast<short>(POLLIN | (m_out.empty() ? 0 : POLLOUT));
    return {m_fd.get(), events, 0};
  }

  void serve(short events) {
    if (events & (POLLIN | POLLHUP | POLLERR)) receive();
    flush();
  }

  bool over() const { return m_over || (m_closing && clock::now() > m_lingerUntil); }

 private:
  void receive() {
    char block[16384];
    const ssize_t count = recv(m_fd.get(), block, sizeof block, 0);
    if (count < 0 && would_block()) return;
    if (count <= 0) {
      m_peer->closed();
      m_over = true;
    } else if (!m_closing) {
      const std::string_view bytes(block, static_cast<size_t>(count));
      if (m_tls)
        receive_protected(bytes);
      else
        m_peer->received(bytes);
      perform();
    }
  }

  void receive_protected(std::string_view bytes) {
    const bool was_ready = m_tls->ready();
    const tls_channel::status status = m_tls->feed(bytes);
    if (m_tls->ready() && !was_ready) {
      if (m_implicit)
        m_peer->connected(true);
      else
        m_peer->tls_started();
    }
    const std::string text = m_tls->take_text();
    if (!text.empty()) m_peer->received(text);
    if (status != tls_channel::open) {  // what OpenSSL still has to say is an alert or a farewell
      perform();
      hang_up();
    }
  }

  void begin_tls() {
    if (m_tlsContext == nullptr) return hang_up();
    m_tls = std::make_unique<tls_channel>(*m_tlsContext);
  }

  // Does what the peer asked for.
  void perform() {
    while (!m_peer->actions.empty() && !m_closing) {
      const peer_action action = std::move(m_peer->actions.front());
      m_peer->actions.pop_front();
      switch (action.kind) {
        case peer_action::send:
          if (m_tls)
            m_tls->send(action.bytes);
          else
            m_out += action.bytes;
          break;
        case peer_action::start_tls:
          begin_tls();
          break;
        case peer_action::close:
          hang_up();
          break;
      }
    }
    flush();
  }

  void hang_up() {
    if (m_closing) return;
    if (m_tls) m_tls->say_goodbye();
    m_closing = true;
    m_lingerUntil = clock::now() + linger;
  }

  void flush() {
    if (m_tls) m_out += m_tls->take_wire();
    while (!m_out.empty()) {
      const ssize_t count = send(m_fd.get(), m_out.data(), m_out.size(), MSG_NOSIGNAL);
      if (count < 0 && would_block()) return;
      if (count < 0) {
        m_over = true;
        return;
      }
      m_out.erase(0, static_cast<size_t>(count));
    }
    if (m_closing && !std::exchange(m_writeShut, true)) shutdown(m_fd.get(), SHUT_WR);
  }

  file_descriptor m_fd;
  std::unique_ptr<mail_peer> m_peer;
  tls_context* m_tlsContext;
  std::unique_ptr<tls_channel> m_tls;
  bool m_implicit = false;
  std::string m_out;
  bool m_closing = false;  // our side is done; waits for the client to close
  bool m_writeShut = false;
  bool m_over = false;
  clock::time_point m_lingerUntil;
};

}  // namespace

class loopback_server::engine {
 public:
  engine(const certificate_files& certificates, const limits& bounds)
      : m_limits(bounds), m_wake(require(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "make an event")) {
    if (!certificates.certificate.empty())
      m_tls = std::make_unique<tls_context>(certificates.certificate, certificates.key);
  }

  uint16_t listen_on(mail_host& host, tls_mode mode, uint16_t port);
  void finish_when(std::function<bool()> done) { m_done = std::move(done); }
  void run();
  void wake() {
    const uint64_t one = 1;
    if (write(m_wake.get(), &one, sizeof one) < 0) return;  // already set
  }

 private:
  struct listener {
    file_descriptor fd;
    mail_host* host;
    tls_mode mode;
  };

  bool accepting() const {
    return m_accepted < m_limits.connections && m_connections.size() < m_limits.at_once &&
           !(m_done && m_done());
  }
  bool finished() const {
    return m_connections.empty() && (m_accepted >= m_limits.connections || (m_done && m_done()));
  }
  void accept_on(const listener& from);

  limits m_limits;
  file_descriptor m_wake;
  std::unique_ptr<tls_context> m_tls;
  std::function<bool()> m_done;
  std::vector<listener> m_listeners;
  std::vector<std::unique_ptr<connection>> m_connections;
  size_t m_accepted = 0;
};

uint16_t loopback_server::engine::listen_on(mail_host& host, tls_mode mode, uint16_t port) {
  const int type = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
  file_descriptor fd(require(socket(AF_INET, type, 0), "make a socket"));
  const int on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  require(bind(fd.get(), generic, length), "bind the port");
  require(::listen(fd.get(), 16), "listen");
  require(getsockname(fd.get(), generic, &length), "ask for the port");
  m_listeners.push_back({std::move(fd), &host, mode});
  return ntohs(address.sin_port);
}

void loopback_server::engine::accept_on(const listener& from) {
  file_descriptor fd(accept4(from.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (fd.get() < 0) return;
  const int on = 1;
  setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ++m_accepted;
  m_connections.push_back(
      std::make_unique<connection>(std::move(fd), from.host->accept(), m_tls.get(), from.mode));
}

void loopback_server::engine::run() {
  const clock::time_point end = clock::now() + m_limits.life;
  while (clock::now() < end && !finished()) {
    std::vector<pollfd> polls = {{m_wake.get(), POLLIN, 0}};
    for (const auto& link : m_connections) polls.push_back(link->interest());
    if (accepting())
      for (const listener& from : m_listeners) polls.push_back({from.fd.get(), POLLIN, 0});
    poll(polls.data(), polls.size(), static_cast<int>(tick.count()));
    if (polls[0].revents != 0) break;
    const size_t served = m_connections.size();
    for (size_t i = 0; i < served; ++i)
      if (polls[i + 1].revents != 0) m_connections[i]->serve(polls[i + 1].revents);
    for (size_t i = served + 1; i < polls.size(); ++i)
      if (polls[i].revents != 0) accept_on(m_listeners[i - served - 1]);
    m_connections.erase(std::remove_if(m_connections.begin(), m_connections.end(),
                                       [](const auto& link) { return link->over(); }),
                        m_connections.end());
  }
  m_connections.clear();
  m_listeners.clear();
}

loopback_server::loopback_server(const certificate_files& certificates, const limits& bounds)
    : m_engine(std::make_unique<engine>(certificates, bounds)) {}

loopback_server::~loopback_server() { stop(); }

uint16_t loopback_server::listen(mail_host& host, tls_mode mode, uint16_t port) {
  return m_engine->listen_on(host, mode, port);
}

void loopback_server::finish_when(std::function<bool()> done) {
  m_engine->finish_when(std::move(done));
}

void loopback_server::start() {
  m_thread = std::thread([this] { m_engine->run(); });
}

void loopback_server::wait() {
  if (m_thread.joinable()) m_thread.join();
}

void loopback_server::stop() {
  m_engine->wake();
  wait();
}

}  // namespace tav_test
