#include "wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "mail_text.h"
#include "task.h"

namespace bench {

wire::wire(uint16_t port, bool tls)
    : m_nFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_pContext(nullptr), m_pTls(nullptr) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  setsockopt(m_nFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  require(connect(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "connect");
  if (!tls) return;
  std::signal(SIGPIPE, SIG_IGN);
  m_pContext = SSL_CTX_new(TLS_client_method());
  m_pTls = m_pContext != nullptr ? SSL_new(m_pContext) : nullptr;
  require(m_pTls != nullptr && SSL_set_fd(m_pTls, m_nFd) == 1 && SSL_connect(m_pTls) == 1, "TLS");
}

wire::~wire() {
  if (m_pTls != nullptr) {
    SSL_shutdown(m_pTls);
    SSL_free(m_pTls);
    SSL_CTX_free(m_pContext);
  }
  close(m_nFd);
}

size_t wire::read(char* room, size_t size) {
  const ssize_t count = m_pTls != nullptr ? SSL_read(m_pTls, room, static_cast<int>(size))
                                          : recv(m_nFd, room, size, 0);
  require(count > 0, "receive");
  return static_cast<size_t>(count);
}

void wire::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = m_pTls != nullptr
                              ? SSL_write(m_pTls, bytes.data(), static_cast<int>(bytes.size()))
                              : send(m_nFd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    require(count > 0, "send");
    bytes.remove_prefix(static_cast<size_t>(count));
  }
}

void wire::expect(char wanted) {
  char room[1024];
  size_t length = 0;
  size_t line = 0;  // where the last line begins
  for (;;) {
    length += read(room + length, sizeof room - length);
    for (size_t i = line; i + 1 < length; ++i) {
      if (room[i] == '\n') line = i + 1;
    }
    const bool is_whole = length > 0 && room[length - 1] == '\n';
    // SMTP: "250-" goes on. POP3 has single lines.
    if (is_whole && (length - line < 4 || room[line + 3] != '-')) break;
    require(length < sizeof room, "reply too long");
  }
  require(room[0] == wanted, "refused");
}

void wire::open_mail() {
  expect('2');
  command("EHLO localhost\r\n", '2');
  command(std::string("MAIL FROM:<") + kFrom + ">\r\n", '2');
  command(std::string("RCPT TO:<") + kTo + ">\r\n", '2');
  command("DATA\r\n", '3');
}

void wire::close_mail() {
  command("\r\n.\r\n", '2');
  command("QUIT\r\n", '2');
}

void wire::log_in() {
  expect('+');
  command("USER bench\r\n", '+');
  command("PASS bench\r\n", '+');
}

}  // namespace bench
