#include "connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace mailhost {
namespace {

constexpr size_t piece = size_t{64} << 10;
constexpr int most_turns = 50;  // then the other connections have theirs

// How long a connection that we hang up may still bring bytes. Closing at once would make the
// system send a reset, which may overtake our last words.
constexpr std::chrono::seconds linger{2};

bool would_block() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

connection::connection(file_descriptor socket, std::unique_ptr<session> peer,
                       const tls_context& tls, bool tls_first, const limits& bounds)
    : m_socket(std::move(socket)),
      m_session(std::move(peer)),
      m_context(tls),
      m_limits(bounds),
      m_tlsFirst(tls_first),
      m_born(clock::now()),
      m_lastMove(m_born),
      m_pauseEnd(m_born) {
  if (tls_first)
    begin_tls();
  else
    m_session->connected(false);
  serve(0);
}

// Bytes are not read while there is something to say: a client that does not listen must not fill
// our memory.
bool connection::wants_bytes() const {
  if (m_isClosing || is_shaking_hands()) return true;
  return m_out.empty() && m_session->actions.empty();
}

pollfd connection::interest() const {
  const int events = (wants_bytes() ? POLLIN : 0) | (m_out.empty() ? 0 : POLLOUT);
  return {m_socket.get(), static_cast<short>(events), 0};
}

connection::clock::time_point connection::due() const {
  if (m_hasMore) return m_born;
  if (m_isClosing) return m_lingerEnd;
  const clock::time_point end = std::min(m_lastMove + m_limits.idle, m_born + m_limits.life);
  const bool is_paused = !m_session->actions.empty() && m_out.empty();
  return is_paused ? std::min(end, m_pauseEnd) : end;
}

void connection::serve(short events) {
  if ((events & POLLIN) != 0)
    receive();
  else if ((events & (POLLHUP | POLLERR | POLLNVAL)) != 0)
    m_isOver = true;
  flush();
  int turns = most_turns;
  while (!m_isOver && turns > 0 && step()) {
    flush();
    --turns;
  }
  m_hasMore = turns == 0;
  check_time();
}

void connection::check_time() {
  const clock::time_point now = clock::now();
  if (m_isClosing) {
    m_isOver = m_isOver || now >= m_lingerEnd;
  } else if (now >= m_born + m_limits.life || now >= m_lastMove + m_limits.idle) {
    m_session->note("closed because it took too long");
    m_isOver = true;
  }
}

void connection::receive() {
  char block[16384];
  const ssize_t count = recv(m_socket.get(), block, sizeof block, 0);
  if (count < 0 && would_block()) return;
  if (count <= 0) {
    m_isOver = true;
    return;
  }
  if (m_isClosing) return;
  m_lastMove = clock::now();
  const std::string_view bytes(block, static_cast<size_t>(count));
  if (m_tls)
    receive_protected(bytes);
  else
    m_session->received(bytes);
}

void connection::receive_protected(std::string_view bytes) {
  const bool was_ready = m_tls->is_ready();
  const tls_channel::status status = m_tls->feed(bytes);
  if (m_tls->is_ready() && !was_ready) {
    if (m_tlsFirst)
      m_session->connected(true, m_tls->description());
    else
      m_session->tls_started(m_tls->description());
  }
  const std::string text = m_tls->take_text();
  if (!text.empty()) m_session->received(text);
  if (status == tls_channel::broken) m_session->note("TLS failed: " + m_tls->problem());
  if (status != tls_channel::open) hang_up();
}

// Does a piece of what the session asks for. False: nothing can be done now.
bool connection::step() {
  const bool is_paused = clock::now() < m_pauseEnd;
  if (m_isClosing || is_paused || !m_out.empty() || is_shaking_hands()) return false;
  if (m_session->actions.empty()) m_session->received("");
  if (m_session->actions.empty()) return false;
  action& next = m_session->actions.front();
  if (next.kind == action::send) {
    send_piece(next);
    if (m_sent < next.bytes.size()) return true;
    m_sent = 0;
  } else if (next.kind == action::wait) {
    m_pauseEnd = m_lastMove = clock::now() + next.time;
  } else if (next.kind == action::start_tls) {
    begin_tls();
  } else if (next.kind == action::close) {
    hang_up();
  } else {
    reset();
  }
  m_session->actions.pop_front();
  return true;
}

void connection::send_piece(action& what) {
  const bool drips = what.time.count() != 0;
  const std::string_view next = std::string_view(what.bytes).substr(m_sent, drips ? 1 : piece);
  if (m_tls)
    m_tls->send(next);
  else
    m_out += next;
  m_sent += next.size();
  if (drips) m_pauseEnd = m_lastMove = clock::now() + what.time;
}

void connection::hang_up() {
  if (m_isClosing) return;
  if (m_tls) m_tls->say_goodbye();
  m_isClosing = true;
  m_lingerEnd = clock::now() + linger;
}

void connection::reset() {
  const struct linger at_once = {1, 0};
  setsockopt(m_socket.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  m_isOver = true;
}

void connection::flush() {
  if (m_tls) m_out += m_tls->take_wire();
  while (!m_out.empty() && !m_isOver) {
    const ssize_t count = send(m_socket.get(), m_out.data(), m_out.size(), MSG_NOSIGNAL);
    if (count < 0 && would_block()) return;
    if (count < 0) {
      m_isOver = true;
      return;
    }
    m_lastMove = std::max(m_lastMove, clock::now());
    m_out.erase(0, static_cast<size_t>(count));
  }
  if (m_isClosing && !std::exchange(m_isWriteShut, true)) shutdown(m_socket.get(), SHUT_WR);
}

}  // namespace mailhost
