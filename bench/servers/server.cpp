#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

namespace bench {

namespace {

constexpr int kSilence = 20;  // seconds

struct context_deleter {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using context_ptr = std::unique_ptr<SSL_CTX, context_deleter>;

int fail(const char* what) {
  std::perror(what);
  return 1;
}

context_ptr make_context(const std::string& certificate) {
  context_ptr context(SSL_CTX_new(TLS_server_method()));
  if (!context || SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), certificate.c_str(), SSL_FILETYPE_PEM) != 1) {
    return nullptr;
  }
  return context;
}

int listen_on_loopback(uint16_t& port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(fd, 16) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  port = ntohs(address.sin_port);
  return fd;
}

void set_options(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const timeval silence = {kSilence, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &silence, sizeof silence);
}

}  // namespace

channel::channel(int fd, SSL_CTX* tls)
    : m_nFd(fd), m_pTls(nullptr), m_bOpen(true), m_uFirst(0), m_uLast(0) {
  if (tls == nullptr) return;
  m_pTls = SSL_new(tls);
  m_bOpen = m_pTls != nullptr && SSL_set_fd(m_pTls, fd) == 1 && SSL_accept(m_pTls) == 1;
}

channel::~channel() {
  if (m_pTls != nullptr) {
    if (m_bOpen) SSL_shutdown(m_pTls);
    SSL_free(m_pTls);
  }
  close(m_nFd);
}

size_t channel::read(char* room, size_t size) {
  const ssize_t count = m_pTls != nullptr ? SSL_read(m_pTls, room, static_cast<int>(size))
                                          : recv(m_nFd, room, size, 0);
  return count > 0 ? static_cast<size_t>(count) : 0;
}

bool channel::write(std::string_view bytes) {
  constexpr size_t kPiece = 256 * 1024;
  while (!bytes.empty()) {
    const size_t piece = std::min(bytes.size(), kPiece);
    const ssize_t count = m_pTls != nullptr
                              ? SSL_write(m_pTls, bytes.data(), static_cast<int>(piece))
                              : send(m_nFd, bytes.data(), piece, MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

bool channel::read_line(std::string_view& line) {
  for (;;) {
    const char* first = m_aLines + m_uFirst;
    const void* feed = std::memchr(first, '\n', m_uLast - m_uFirst);
    if (feed != nullptr) {
      const size_t length = static_cast<size_t>(static_cast<const char*>(feed) - first);
      m_uFirst += length + 1;
      line = {first, length > 0 && first[length - 1] == '\r' ? length - 1 : length};
      return true;
    }
    std::memmove(m_aLines, first, m_uLast - m_uFirst);
    m_uLast -= m_uFirst;
    m_uFirst = 0;
    if (m_uLast == kLineRoom) return false;
    const size_t count = read(m_aLines + m_uLast, kLineRoom - m_uLast);
    if (count == 0) return false;
    m_uLast += count;
  }
}

std::string_view channel::take_rest() {
  const std::string_view rest(m_aLines + m_uFirst, m_uLast - m_uFirst);
  m_uFirst = m_uLast = 0;
  return rest;
}

int serve(const server_options& options, const std::function<void(channel&)>& talk) {
  std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes with write()
  context_ptr context;
  if (!options.certificate.empty()) {
    context = make_context(options.certificate);
    if (!context) return fail("certificate");
  }
  uint16_t port = 0;
  const int listener = listen_on_loopback(port);
  if (listener < 0) return fail("listen");
  std::printf("%u\n", port);
  std::fflush(stdout);

  using clock = std::chrono::steady_clock;
  const auto end = clock::now() + std::chrono::seconds(options.max_seconds);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock::now());
    if (left.count() <= 0) break;
    pollfd waits[2] = {{listener, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (poll(waits, 2, static_cast<int>(left.count())) <= 0) break;
    if (waits[1].revents != 0) break;
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    set_options(fd);
    channel peer(fd, context.get());
    if (peer.is_open()) talk(peer);
  }
  close(listener);
  return 0;
}

std::string option(int argc, char** argv, const char* name, const char* otherwise) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
  }
  return otherwise;
}

}  // namespace bench
