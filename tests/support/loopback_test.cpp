// loopback_test.cpp - mail hosts on real sockets, against the client side of OpenSSL.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "loopback_server.h"
#include "smtp_host.h"

namespace tav_test {
namespace {

class temporary_directory {
 public:
  temporary_directory() {
    std::string form = (std::filesystem::temp_directory_path() / "tav_test_XXXXXX").string();
    if (mkdtemp(form.data())) m_path = form;
  }
  ~temporary_directory() { std::filesystem::remove_all(m_path); }
  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

// A blocking client; every wait ends after 5 s.
class client {
 public:
  explicit client(uint16_t port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval limit = {5, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~client() {
    if (m_ssl) SSL_shutdown(m_ssl);
    SSL_free(m_ssl);
    SSL_CTX_free(m_context);
    close(m_fd);
  }
  client(const client&) = delete;
  client& operator=(const client&) = delete;

  bool connected() const { return m_connected; }

  // The result of the certificate check, or -1 when there is no TLS at all.
  long start_tls(const std::string& ca, const char* name) {
    m_context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_load_verify_locations(m_context, ca.c_str(), nullptr);
    m_ssl = SSL_new(m_context);
    X509_VERIFY_PARAM_set1_host(SSL_get0_param(m_ssl), name, 0);
    SSL_set_fd(m_ssl, m_fd);
    return SSL_connect(m_ssl) == 1 ? SSL_get_verify_result(m_ssl) : -1;
  }
  void say(const std::string& text) {
    const int length = static_cast<int>(text.size());
    const ssize_t count = m_ssl ? SSL_write(m_ssl, text.data(), length)
                                : send(m_fd, text.data(), text.size(), MSG_NOSIGNAL);
    EXPECT_EQ(count, length);
  }
  std::string hear_line() {
    std::string line;
    char c = 0;
    while ((m_ssl ? SSL_read(m_ssl, &c, 1) : recv(m_fd, &c, 1, 0)) == 1) {
      line += c;
      if (c == '\n') break;
    }
    return line;
  }

 private:
  int m_fd;
  bool m_connected;
  SSL_CTX* m_context = nullptr;
  SSL* m_ssl = nullptr;
};

TEST(LoopbackServer, serves_plain_starttls_and_implicit_tls_together) {
  temporary_directory directory;
  const certificate_files files = make_certificates(directory.path());
  smtp_host host, tls_host;
  host.capabilities({"STARTTLS"});
  loopback_server server(files, {std::chrono::seconds(20)});
  const uint16_t port = server.listen(host);
  const uint16_t tls_port = server.listen(tls_host, tls_mode::implicit);
  server.start();
  {
    client plain(port), c(port), implicit(tls_port);
    EXPECT_EQ(implicit.start_tls(files.ca, "localhost"), X509_V_OK);
    EXPECT_EQ(implicit.hear_line(), "220 mail.example ESMTP\r\n");
    EXPECT_EQ(plain.hear_line(), "220 mail.example ESMTP\r\n");
    c.hear_line();
    c.say("EHLO me\r\nSTARTTLS\r\n");
    EXPECT_EQ(c.hear_line(), "250-mail.example\r\n");
    EXPECT_EQ(c.hear_line(), "250 STARTTLS\r\n");
    EXPECT_EQ(c.hear_line().substr(0, 3), "220");
    ASSERT_EQ(c.start_tls(files.ca, "localhost"), X509_V_OK);
    const std::string body(200000, 'x');
    c.say("EHLO me\r\nMAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\nDATA\r\n" + body + "\r\n.\r\nQUIT\r\n");
    std::string last, line;
    while (!(line = c.hear_line()).empty()) last = line;
    EXPECT_EQ(last, "221 2.0.0 bye\r\n");
    plain.say("QUIT\r\n");
    EXPECT_EQ(plain.hear_line(), "221 2.0.0 bye\r\n");
    EXPECT_EQ(plain.hear_line(), "");
  }
  server.stop();
  ASSERT_EQ(host.messages().size(), 1u);
  EXPECT_EQ(host.messages()[0].data.size(), 200002u);
  EXPECT_TRUE(host.messages()[0].tls);
  EXPECT_EQ(tls_host.connections(), 1u);
}

TEST(LoopbackServer, shows_the_certificate_it_was_given) {
  const struct {
    certificate_kind kind;
    long result;
  } cases[] = {
      {certificate_kind::good, X509_V_OK},
      {certificate_kind::expired, X509_V_ERR_CERT_HAS_EXPIRED},
      {certificate_kind::wrong_name, X509_V_ERR_HOSTNAME_MISMATCH},
      {certificate_kind::self_signed, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
  };
  for (const auto& c : cases) {
    temporary_directory directory;
    const certificate_files files = make_certificates(directory.path(), {"localhost"}, c.kind);
    smtp_host host;
    loopback_server server(files, {std::chrono::seconds(20)});
    const uint16_t port = server.listen(host, tls_mode::implicit);
    server.start();
    EXPECT_EQ(client(port).start_tls(files.ca, "localhost"), c.result);
  }
}

TEST(LoopbackServer, ends_by_itself) {
  smtp_host host;
  const auto begin = std::chrono::steady_clock::now();
  loopback_server short_lived({}, {std::chrono::seconds(1)});
  short_lived.listen(host);
  short_lived.start();
  short_lived.wait();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));

  loopback_server one_shot({}, {std::chrono::seconds(20), 1});
  const uint16_t port = one_shot.listen(host);
  one_shot.start();
  {
    client c(port);
    EXPECT_TRUE(c.connected());
    c.hear_line();
    c.say("garbage\r\nSTARTTLS\r\n");
    EXPECT_EQ(c.hear_line().substr(0, 3), "502");
  }
  one_shot.wait();
  EXPECT_TRUE(host.closed_by_client());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST(LoopbackServer, survives_a_client_that_speaks_no_tls) {
  temporary_directory directory;
  smtp_host host;
  loopback_server server(make_certificates(directory.path()), {std::chrono::seconds(20)});
  const uint16_t port = server.listen(host, tls_mode::implicit);
  server.start();
  client c(port);
  c.say("EHLO me\r\n");
  std::string line;
  while (!(line = c.hear_line()).empty()) continue;  // an alert, then the end
  server.stop();
  EXPECT_EQ(host.client_bytes(), "");
}

}  // namespace
}  // namespace tav_test
