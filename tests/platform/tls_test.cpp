#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <thread>

#include "socket_fixture.h"
#include "tav_dbglog.h"
#include "tls_channel.h"

namespace {

using namespace contract;
using namespace std::string_literals;
using mailhost::certificate_fault;

std::string g_log;  // of the port

class TlsContract : public testing::Test {
 protected:
  TlsContract() {
    std::signal(SIGPIPE, SIG_DFL);
    setenv("SSL_CERT_DIR", "/dev/null", 1);
    tav_dbglog_common::set_sink([](void*, const char*, int, const char* line) { g_log += line; },
                                nullptr);
    use(certificate_fault::none, "localhost");
  }
  ~TlsContract() override {
    tav_netsock_shutdown(m_sock);  // where a test gave up, its server still waits
    m_isOver = true;
    if (m_server.joinable()) m_server.join();
    tav_dbglog_common::set_sink(nullptr, nullptr);
  }

  // The server's certificate; the process trusts its authority.
  void use(certificate_fault fault, const char* name) {
    m_own = mailhost::make_identity({name}, fault);
    const std::string authority = testing::TempDir() + "tlsw-ca.pem";
    std::ofstream(authority) << mailhost::to_pem(m_own.authority.get());
    setenv("SSL_CERT_FILE", authority.c_str(), 1);
  }

  // Serves one connection: `talk` gets its descriptor.
  void serve(std::function<void(int fd)> talk) {
    g_log = m_asked = "";
    m_server = std::thread([this, talk] {
      sigset_t signals;  // OpenSSL's own sockets raise SIGPIPE
      sigfillset(&signals);
      pthread_sigmask(SIG_BLOCK, &signals, nullptr);
      const int fd = m_listener.accept();
      talk(fd);
      close(fd);
    });
  }
  void serve_tls(std::function<void(SSL*)> talk) {
    serve([this, talk](int fd) {
      const mailhost::tls_context context(m_own);
      const std::unique_ptr<SSL, mailhost::ssl_free> ssl(SSL_new(context.get()));
      SSL_set_fd(ssl.get(), fd);
      const bool is_ready = SSL_accept(ssl.get()) == 1;
      const char* const name = SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name);
      if (name != nullptr) m_asked = name;
      if (is_ready) talk(ssl.get());
    });
  }

  int32_t start(const std::vector<uint8_t>& options, uint32_t limit = 0) {
    EXPECT_EQ(tlsw_init(&m_context), TLSW_OK);
    TLSW_CONNECT_PARAM param{m_sock, limit, {}, {}};
    std::copy(options.begin(), options.end(), param.option);
    return tlsw_connect_timeo(m_context, &param, &m_session);
  }
  int32_t connect(const char* host, const std::vector<uint8_t>& options, uint32_t limit = 0) {
    EXPECT_EQ(resolve(host), 0);
    m_sock = connect_to(m_listener.port());
    return start(options, limit);
  }
  void finish() {
    EXPECT_EQ(tlsw_term(m_context), TLSW_OK);
    EXPECT_EQ(tlsw_term(m_context), TLSW_ERR_PARAM) << "freed twice";
    EXPECT_EQ(tlsw_shutdown(m_session), TLSW_ERR_PARAM);
    tav_netsock_shutdown(m_sock);
    tav_netsock_close(m_sock);
    m_server.join();
    m_sock = 0;
    m_session = 0;
  }

  mailhost::identity m_own;
  listener m_listener;
  std::thread m_server;
  std::atomic<bool> m_isOver{false};
  std::string m_asked;  // the name that the client sent
  int32_t m_sock = 0;
  uint32_t m_context = 0;
  uint32_t m_session = 0;
};

TEST_F(TlsContract, only_the_right_certificate_and_known_options_are_accepted) {
  const certificate_fault none = certificate_fault::none;
  const struct {
    std::vector<uint8_t> options;
    int32_t result;
    const char* log;
    certificate_fault fault;
    std::string host = "localhost";  // that was resolved
    const char* name = "localhost";  // in the certificate
  } cases[] = {
      {{1}, TLSW_OK, "TLSv1.3", none},
      {{1}, TLSW_OK, "", none, "127.0.0.1", "127.0.0.1"},
      {{1}, TLSW_ERR_CERTIFICATE, "expired", certificate_fault::expired},
      {{0}, TLSW_OK, "", certificate_fault::expired},
      {{1}, TLSW_ERR_CERTIFICATE, "self-signed", certificate_fault::self_signed},
      {{1}, TLSW_ERR_CERTIFICATE, "not for localhost", certificate_fault::wrong_name},
      {{0}, TLSW_OK, "", certificate_fault::wrong_name},
      {{1}, TLSW_ERR_CERTIFICATE, "not for 127.0.0.1", none, "127.0.0.1"},
      {{1}, TLSW_ERR_CERTIFICATE, "no host name", none, "192.0.2.1"},  // not where it connects to
      {{1, 3, 0, 3, 0}, TLSW_OK, "TLSv1.2", none},
      {{1, 4, 0, 4, 0}, TLSW_OK, "TLSv1.3", none},
      {{2}, TLSW_ERR_PARAM, "", none},
      {{0, 5}, TLSW_ERR_PARAM, "", none},
      {{0, 0, 1}, TLSW_ERR_PARAM, "", none},
      {{0, 0, 0, 5}, TLSW_ERR_PARAM, "", none},
      {{0, 0, 0, 0, 1}, TLSW_ERR_PARAM, "", none},
  };
  for (const auto& test : cases) {
    use(test.fault, test.name);
    serve_tls([](SSL*) {});
    EXPECT_EQ(connect(test.host.c_str(), test.options), test.result) << g_log;
    EXPECT_NE(g_log.find(test.log), std::string::npos) << g_log << " for " << test.log;
    finish();
    // An address is not sent as a name.
    if (test.result != TLSW_OK) continue;
    EXPECT_EQ(m_asked, test.host == "localhost" ? "localhost" : "");
  }
}

TEST_F(TlsContract, a_failed_handshake_ends_in_time) {
  enum { stays, hangs_up, drips, floods, is_early, is_read_up_to };
  // A TLS 1.0 server that answers all the same.
  const std::string old_hello =
      "\x16\3\1\0\x2A\2\0\0\x26\3\1"s + std::string(32, 'r') + "\0\0\x2F\0"s;
  std::string requests;  // HelloRequest: TLS answers these by itself
  for (int i = 0; i < 1000; ++i) requests += "\x16\3\3\0\4\0\0\0\0"s;
  const struct {
    int conduct;
    std::string answer;
    int32_t result;
  } cases[] = {
      {is_early, "220 hi\r\n", TLSW_ERR_CONNECT},
      {is_read_up_to, "|250 OK", TLSW_ERR_CONNECT},
      {stays, "", TLSW_ERR_TIMEOUT},
      {stays, "\x16\3\3", TLSW_ERR_TIMEOUT},
      {drips, "\x16\3\3\x40\0"s + std::string(40, 2), TLSW_ERR_TIMEOUT},
      {floods, requests, TLSW_ERR_CONNECT},
      {hangs_up, "", TLSW_ERR_CONNECT},
      {hangs_up, "\x16\3\3", TLSW_ERR_CONNECT},
      {stays, "500 what?\r\n", TLSW_ERR_CONNECT},
      {hangs_up, "HTTP/1.1 400 Bad Request\r\n", TLSW_ERR_CONNECT},
      {stays, old_hello, TLSW_ERR_CONNECT},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.answer);
    serve([&test](int fd) {
      const stopwatch watch;
      char hello[2000];
      if (test.conduct < is_early) recv(fd, hello, sizeof hello, 0);
      const size_t piece = test.conduct == drips ? 1 : test.answer.size();
      size_t at = 0;
      while (at < test.answer.size() && send(fd, &test.answer[at], piece, MSG_NOSIGNAL) > 0) {
        at += piece;
        if (test.conduct == drips) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (test.conduct == floods && watch.elapsed() < 5000) at = 0;
      }
      while (test.conduct != hangs_up && recv(fd, hello, sizeof hello, 0) > 0) {
      }
    });
    m_sock = connect_to(m_listener.port());
    pollfd arrival = {m_sock, POLLIN, 0};
    if (test.conduct >= is_early) poll(&arrival, 1, 2000);
    // As the reply to STARTTLS is read.
    char byte;
    if (test.conduct == is_read_up_to) tav_netsock_recv_timeo(m_sock, &byte, 1, 0, 1000);
    const stopwatch watch;
    EXPECT_EQ(start({0}, 400), test.result) << g_log;
    EXPECT_TRUE(test.result != TLSW_ERR_TIMEOUT || watch.elapsed() >= 400);
    EXPECT_LT(watch.elapsed(), 1500);
    finish();
  }
}

TEST_F(TlsContract, a_read_ends_in_time_whatever_the_peer_does) {
  const struct {
    uint8_t newest;
    bool (*act)(SSL* ssl);  // again and again, until it fails
    int32_t result;
  } cases[] = {
      {3, [](SSL* ssl) { return SSL_renegotiate(ssl) == 1 && SSL_do_handshake(ssl) == 1; },
       TLSW_ERR_READ},
      {4,
       [](SSL* ssl) {
         return SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED) == 1 &&
                SSL_do_handshake(ssl) == 1;
       },
       TLSW_ERR_TIMEOUT},
      {4, [](SSL*) { return false; }, TLSW_ERR_READ},  // cuts the connection
      {4, [](SSL* ssl) { return SSL_shutdown(ssl) < 0; }, TLSW_OK},
  };
  for (const auto& test : cases) {
    serve_tls([&test](SSL* ssl) {
      const stopwatch watch;
      while (test.act(ssl) && watch.elapsed() < 5000) {
      }
    });
    ASSERT_EQ(connect("localhost", {0, test.newest}), TLSW_OK) << g_log;
    const stopwatch watch;
    char bytes[8];
    int32_t count = -1;
    EXPECT_EQ(tlsw_read_timeo(m_session, bytes, 8, 400, &count), test.result) << g_log;
    EXPECT_LT(watch.elapsed(), 1500);
    EXPECT_LE(count, 0);
    // A peer that is gone raises no signal.
    for (int i = 0; test.result == TLSW_OK && i < 20; ++i) {
      tlsw_write_timeo(m_session, "x", 1, 500, &count);
    }
    finish();
  }
}

TEST_F(TlsContract, bytes_go_both_ways_and_a_write_to_a_slow_peer_has_one_deadline) {
  std::string sent(500000, ' ');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  std::string heard;
  serve_tls([&](SSL* ssl) {
    SSL_write(ssl, "hello", 5);
    char text[4096];
    for (int count; heard.size() < sent.size() && (count = SSL_read(ssl, text, sizeof text)) > 0;) {
      heard.append(text, static_cast<size_t>(count));
    }
    SSL_write(ssl, "all", 3);
    while (!m_isOver) {  // it reads more slowly than there is to read
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      recv(SSL_get_fd(ssl), text, 2048, 0);
    }
  });
  const int room = 8192;
  m_listener.keep_small(room);
  ASSERT_EQ(connect("localhost", {1}), TLSW_OK) << g_log;
  setsockopt(m_sock, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  int32_t count = 0;
  const auto read_letters = [&](int32_t limit) {
    std::string text;
    for (char byte; tlsw_read_timeo(m_session, &byte, 1, limit, &count) == TLSW_OK;) text += byte;
    return text;
  };
  EXPECT_EQ(read_letters(200), "hello");
  for (size_t at = 0; at < sent.size(); at += static_cast<size_t>(count)) {
    const auto rest = static_cast<int32_t>(sent.size() - at);
    ASSERT_EQ(tlsw_write_timeo(m_session, sent.data() + at, rest, -1, &count), TLSW_OK);
    ASSERT_TRUE(0 < count && count <= rest);
  }
  EXPECT_EQ(read_letters(500), "all");
  EXPECT_TRUE(heard == sent) << heard.size();
  // One deadline, however little of it is taken again and again.
  int32_t result = TLSW_OK;
  for (int i = 0; i < 5 && result == TLSW_OK; ++i) {
    const stopwatch watch;
    result = tlsw_write_timeo(m_session, sent.data(), 65536, 400, &count);
    EXPECT_LT(watch.elapsed(), 550);
  }
  EXPECT_EQ(result, TLSW_ERR_TIMEOUT);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(tlsw_write_timeo(m_session, "x", 1, 50, &count), TLSW_ERR_WRITE) << "half a record";
  const stopwatch watch;
  EXPECT_EQ(tlsw_shutdown(m_session), TLSW_OK);
  EXPECT_LT(watch.elapsed(), 100);
  m_isOver = true;
  finish();
}

}  // namespace
