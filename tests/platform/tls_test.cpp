#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include "socket_fixture.h"
#include "tav_dbglog.h"
#include "test_certificates.h"
#include "tls_channel.h"
#include "tlsw.h"
#if __has_include("tav_wiretap.h")  // an extension of the Linux port
#include "tav_wiretap.h"
#endif

namespace {

using namespace contract;
using namespace std::string_literals;
using tav_test::certificate_kind;

std::string g_log;

class TlsContract : public testing::Test {
 protected:
  void SetUp() override {
    m_folder = std::filesystem::temp_directory_path() /
               ("tlsw-" + std::to_string(getpid()) + "-" +
                testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(m_folder);
    g_log.clear();
    tav_dbglog_common::set_sink(
        [](void*, const char*, int, const char* line) { g_log += std::string(line) + "\n"; },
        nullptr);
  }
  void TearDown() override {
    tav_netsock_shutdown(m_sock);  // where a test gave up, its server still waits
    if (m_server.joinable()) m_server.join();
    tav_dbglog_common::set_sink(nullptr, nullptr);
    std::filesystem::remove_all(m_folder);
  }

  // A certificate of this kind; the process trusts its authority.
  void use(certificate_kind kind, const std::vector<std::string>& names = {"localhost"}) {
    m_files = tav_test::make_certificates(m_folder, names, kind);
    setenv("SSL_CERT_FILE", m_files.ca.c_str(), 1);
    setenv("SSL_CERT_DIR", "/dev/null", 1);
  }

  // Serves one connection: `talk` gets its descriptor.
  void serve(std::function<void(int)> talk) {
    m_server = std::thread([this, talk] {
      const int fd = m_listener.accept();
      talk(fd);
      close(fd);
    });
  }

  // Serves one TLS connection until the client ends it: greets, then echoes.
  void serve_tls(const std::string& greeting = "hello") {
    serve([this, greeting](int fd) {
      const tav_test::tls_context context(m_files.certificate, m_files.key);
      tav_test::tls_channel channel(context);
      bool is_greeted = false;
      char wire[4096];
      for (ssize_t count; (count = recv(fd, wire, sizeof wire, 0)) > 0;) {
        const auto status = channel.feed({wire, static_cast<size_t>(count)});
        if (channel.ready() && !is_greeted) channel.send(greeting);
        is_greeted = channel.ready();
        const std::string text = channel.take_text();
        m_heard += text;
        if (!text.empty()) channel.send("<" + text + ">");
        const std::string out = channel.take_wire();
        send(fd, out.data(), out.size(), MSG_NOSIGNAL);
        if (status != tav_test::tls_channel::open) return;
      }
    });
  }

  int32_t start(const std::string& host, std::initializer_list<uint8_t> options,
                uint32_t timeout_ms = 20000) {
    m_sock = connect_to(host, m_listener.port());
    EXPECT_GT(m_sock, 0);
    EXPECT_EQ(tlsw_init(&m_context), TLSW_OK);
    TLSW_CONNECT_PARAM param{};
    param.sock = m_sock;
    param.timeout_ms = timeout_ms;
    std::copy(options.begin(), options.end(), param.option);
    return tlsw_connect_timeo(m_context, &param, &m_session);
  }
  void finish() {
    EXPECT_EQ(tlsw_term(m_context), TLSW_OK);
    EXPECT_EQ(tlsw_term(m_context), TLSW_ERR_PARAM) << "freed twice";
    tav_netsock_shutdown(m_sock);
    tav_netsock_close(m_sock);
    m_sock = 0;
  }

  std::string read_some(int32_t timeout_ms = 20000) {
    char buffer[64];
    int32_t count = -1;
    const int32_t result = tlsw_read_timeo(m_session, buffer, sizeof buffer, timeout_ms, &count);
    return result == TLSW_OK ? std::string(buffer, static_cast<size_t>(count)) : "(failed)";
  }

  std::filesystem::path m_folder;
  tav_test::certificate_files m_files;
  listener m_listener;
  std::thread m_server;
  std::string m_heard;
  int32_t m_sock = 0;
  uint32_t m_context = 0;
  uint32_t m_session = 0;
};

TEST_F(TlsContract, moves_bytes_both_ways_and_ends_one_way) {
  std::signal(SIGPIPE, SIG_DFL);
  use(certificate_kind::good);
  serve_tls();
  ASSERT_EQ(start("localhost", {1}), TLSW_OK) << g_log;
  EXPECT_EQ(read_some(), "hello");
  int32_t count = 0;
  EXPECT_EQ(tlsw_write_timeo(m_session, "abc", 3, 1000, &count), TLSW_OK);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(read_some(), "<abc>");
  char byte;
  EXPECT_EQ(tlsw_read_timeo(m_session, &byte, 1, 100, &count), TLSW_ERR_TIMEOUT);
  EXPECT_EQ(tlsw_shutdown(m_session), TLSW_OK);
  finish();
  EXPECT_EQ(tlsw_read_timeo(m_session, &byte, 1, 100, &count), TLSW_ERR_PARAM);
}

TEST_F(TlsContract, finds_decrypted_bytes_without_waiting) {
  use(certificate_kind::good);
  serve_tls("0123456789");
  ASSERT_EQ(start("localhost", {1}), TLSW_OK);
  char byte;
  int32_t count = 0;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(tlsw_read_timeo(m_session, &byte, 1, 2000, &count), TLSW_OK);
    EXPECT_EQ(byte, '0' + i);
  }
  tlsw_shutdown(m_session);
  finish();
}

TEST_F(TlsContract, large_writes_arrive_whole_and_stuck_ones_time_out) {
  use(certificate_kind::good);
  std::atomic<bool> is_over{false};
  serve([this, &is_over](int fd) {
    const tav_test::tls_context context(m_files.certificate, m_files.key);
    tav_test::tls_channel channel(context);
    char wire[4096];
    for (ssize_t count; (count = recv(fd, wire, sizeof wire, 0)) > 0;) {
      channel.feed({wire, static_cast<size_t>(count)});
      m_heard += channel.take_text();
      const std::string out = channel.take_wire();
      send(fd, out.data(), out.size(), MSG_NOSIGNAL);
      while (m_heard.size() == 500000 && !is_over) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  });
  ASSERT_EQ(start("localhost", {1}), TLSW_OK);
  std::string sent(500000, ' ');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  int32_t count = 0;
  for (size_t at = 0; at < sent.size(); at += static_cast<size_t>(count)) {
    const auto rest = static_cast<int32_t>(sent.size() - at);
    ASSERT_EQ(tlsw_write_timeo(m_session, sent.data() + at, rest, 5000, &count), TLSW_OK);
    ASSERT_TRUE(0 < count && count <= rest);
  }
  // The peer has read all of it and reads no more.
  int32_t result = TLSW_OK;
  for (int i = 0; i < 1000 && result == TLSW_OK; ++i) {
    result = tlsw_write_timeo(m_session, sent.data(), 500000, 50, &count);
  }
  EXPECT_EQ(result, TLSW_ERR_TIMEOUT);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(tlsw_write_timeo(m_session, "x", 1, 50, &count), TLSW_ERR_WRITE)
      << "after half a record";
  EXPECT_EQ(tlsw_shutdown(m_session), TLSW_OK);
  is_over = true;
  finish();
  m_server.join();
  EXPECT_EQ(m_heard.compare(0, sent.size(), sent), 0);
}

TEST_F(TlsContract, only_the_right_certificate_is_accepted_when_checking_is_on) {
  const struct {
    certificate_kind kind;
    const char* host;
    const char* reason;
  } cases[] = {
      {certificate_kind::expired, "localhost", "expired"},
      {certificate_kind::self_signed, "localhost", "self-signed"},
      {certificate_kind::wrong_name, "localhost", "for wrong.example, not for localhost"},
      {certificate_kind::good, "127.0.0.1", "not for 127.0.0.1"},
  };
  for (const auto& test : cases) {
    for (const uint8_t check : {uint8_t{1}, uint8_t{0}}) {
      g_log.clear();
      use(test.kind);
      serve_tls();
      EXPECT_EQ(start(test.host, {check}), check == 1 ? TLSW_ERR_CERTIFICATE : TLSW_OK);
      if (check == 1) {
        EXPECT_NE(g_log.find(test.reason), std::string::npos) << g_log;
      }
      finish();
      m_server.join();
    }
  }
  use(certificate_kind::good, {"127.0.0.1"});
  serve_tls();
  EXPECT_EQ(start("127.0.0.1", {1}), TLSW_OK) << g_log;
  finish();
}

TEST_F(TlsContract, an_unknown_issuer_is_refused) {
  use(certificate_kind::good);
  setenv("SSL_CERT_FILE", "/dev/null", 1);
  serve_tls();
  EXPECT_EQ(start("localhost", {1}), TLSW_ERR_CERTIFICATE);
  EXPECT_NE(g_log.find("issuer is unknown"), std::string::npos) << g_log;
  finish();
}

TEST_F(TlsContract, a_socket_without_a_name_cannot_be_checked) {
  use(certificate_kind::good);
  serve_tls();
  // Another name was resolved in between: the address is not known to belong to any name.
  tav_netsock_addrinfo hints{};
  tav_netsock_addrinfo* list = nullptr;
  ASSERT_EQ(tav_netsock_getaddrinfo("192.0.2.1", nullptr, &hints, &list), 0);
  tav_netsock_freeaddrinfo(list);
  const auto address = loopback(m_listener.port());
  m_sock = tav_netsock_socket(TAV_NETSOCK_INET, TAV_NETSOCK_STREAM, 0);
  ASSERT_EQ(tav_netsock_connect_timeo(m_sock, &address, sizeof address, 1000), 0);
  ASSERT_EQ(tlsw_init(&m_context), TLSW_OK);
  TLSW_CONNECT_PARAM param{};
  param.sock = m_sock;
  param.timeout_ms = 1000;
  param.option[0] = 1;
  EXPECT_EQ(tlsw_connect_timeo(m_context, &param, &m_session), TLSW_ERR_CERTIFICATE);
  finish();
}

// The reply to STARTTLS is read byte by byte, and nothing may stand behind it.
TEST_F(TlsContract, bytes_in_clear_before_the_handshake_are_an_error) {
  use(certificate_kind::good);
  for (const std::string reply : {"", "220 go\r\n"}) {
    serve([&reply](int fd) {
      const std::string sent = reply + "250 injected\r\n";
      send(fd, sent.data(), sent.size(), MSG_NOSIGNAL);
      char byte;
      recv(fd, &byte, 1, 0);
    });
    m_sock = connect_to("localhost", m_listener.port());
    pollfd poll_fd = {m_sock, POLLIN, 0};
    ASSERT_EQ(poll(&poll_fd, 1, 2000), 1);
    char byte = 0;
    for (const char wanted : reply) {
      ASSERT_EQ(tav_netsock_recv_timeo(m_sock, &byte, 1, 0, 1000), 1);
      EXPECT_EQ(byte, wanted);
    }
    ASSERT_EQ(tlsw_init(&m_context), TLSW_OK);
    TLSW_CONNECT_PARAM param{};
    param.sock = m_sock;
    EXPECT_EQ(tlsw_connect_timeo(m_context, &param, &m_session), TLSW_ERR_CONNECT);
    finish();
    m_server.join();
  }
}

TEST_F(TlsContract, the_handshake_has_one_deadline_however_slowly_the_peer_drips) {
  use(certificate_kind::good);
  serve([](int fd) {
    char hello[2000];
    recv(fd, hello, sizeof hello, 0);
    // The head of a record that never comes to its end.
    const char head[] = {22, 3, 3, 64, 0};
    for (int i = 0; i < 40; ++i) {
      if (send(fd, i < 5 ? &head[i] : "\x02", 1, MSG_NOSIGNAL) < 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  const stopwatch watch;
  EXPECT_EQ(start("localhost", {0}, 400), TLSW_ERR_TIMEOUT);
  EXPECT_GE(watch.elapsed(), 400);
  EXPECT_LT(watch.elapsed(), 1500);
  finish();
}

// Records that TLS itself answers for: the deadline is looked at although bytes come and come.
TEST_F(TlsContract, a_handshake_that_is_asked_for_again_and_again_ends) {
  use(certificate_kind::good);
  serve([](int fd) {
    char hello[2000];
    recv(fd, hello, sizeof hello, 0);
    std::string requests;  // HelloRequest, one a record, in clear
    for (int i = 0; i < 1000; ++i) requests += std::string("\x16\3\3\0\4\0\0\0\0", 9);
    const stopwatch watch;
    while (watch.elapsed() < 5000 && send(fd, requests.data(), requests.size(), MSG_NOSIGNAL) > 0) {
    }
  });
  const stopwatch watch;
  EXPECT_EQ(start("localhost", {0}, 400), TLSW_ERR_CONNECT);
  EXPECT_LT(watch.elapsed(), 1500);
  EXPECT_NE(g_log.find("no renegotiation"), std::string::npos) << g_log;
  finish();
}

TEST_F(TlsContract, a_read_ends_whatever_else_the_peer_sends) {
  use(certificate_kind::good);
  const struct {
    uint8_t newest;
    int (*step)(SSL* ssl);
    int32_t result;
  } cases[] = {
      {3, [](SSL* ssl) { return SSL_renegotiate(ssl); }, TLSW_ERR_READ},
      {4, [](SSL* ssl) { return SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED); },
       TLSW_ERR_TIMEOUT},
  };
  for (const auto& test : cases) {
    serve([this, &test](int fd) {
      const tav_test::tls_context context(m_files.certificate, m_files.key);
      const std::unique_ptr<SSL, tav_test::tls_free> ssl(SSL_new(context.get()));
      SSL_set_fd(ssl.get(), fd);
      std::signal(SIGPIPE, SIG_IGN);
      const stopwatch watch;
      if (SSL_accept(ssl.get()) != 1) return;
      do {
        if (test.step(ssl.get()) != 1 || SSL_do_handshake(ssl.get()) != 1) break;
      } while (watch.elapsed() < 5000);
      SSL_write(ssl.get(), "late", 4);
    });
    ASSERT_EQ(start("localhost", {0, test.newest}), TLSW_OK) << g_log;
    const stopwatch watch;
    char bytes[8];
    int32_t count = 0;
    EXPECT_EQ(tlsw_read_timeo(m_session, bytes, sizeof bytes, 400, &count), test.result) << g_log;
    EXPECT_LT(watch.elapsed(), 1500);
    finish();
    m_server.join();
  }
}

TEST_F(TlsContract, a_write_has_one_deadline_however_slowly_the_peer_reads) {
  use(certificate_kind::good);
  serve([this](int fd) {
    const tav_test::tls_context context(m_files.certificate, m_files.key);
    tav_test::tls_channel channel(context);
    char wire[2048];
    for (ssize_t count; (count = recv(fd, wire, sizeof wire, 0)) > 0;) {
      channel.feed({wire, static_cast<size_t>(count)});
      const std::string out = channel.take_wire();
      send(fd, out.data(), out.size(), MSG_NOSIGNAL);
      if (channel.ready()) std::this_thread::sleep_for(std::chrono::milliseconds(18));
    }
  });
  const int room = 8192;
  m_listener.keep_small(room);
  ASSERT_EQ(start("localhost", {1}), TLSW_OK);
  setsockopt(m_sock, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  const std::string much(65536, 'x');
  int32_t result = TLSW_OK;
  int32_t count = 0;
  for (int i = 0; i < 5 && result == TLSW_OK; ++i) {
    const stopwatch watch;
    result = tlsw_write_timeo(m_session, much.data(), 65536, 400, &count);
    EXPECT_LT(watch.elapsed(), 550);
  }
  EXPECT_EQ(result, TLSW_ERR_TIMEOUT);
  finish();
}

TEST_F(TlsContract, a_peer_that_drops_is_an_error_and_not_an_end) {
  use(certificate_kind::good);
  serve([](int fd) {
    char bytes[100];
    recv(fd, bytes, sizeof bytes, 0);
  });
  EXPECT_EQ(start("localhost", {1}), TLSW_ERR_CONNECT);
  finish();
}

#ifdef TAV_WIRETAP_H
TEST_F(TlsContract, tells_an_observer_why_the_handshake_failed) {
  use(certificate_kind::good);
  // A TLS 1.0 server that answers all the same.
  const std::string old_hello = std::string("\x16\3\1\0\x2A\2\0\0\x26\3\1", 11) +
                                std::string(32, 'r') + std::string("\0\0\x2F\0", 4);
  const struct {
    std::string answer;
    bool is_early;  // it does not wait for the client
    bool hangs_up;
    const char* reason;
  } cases[] = {
      {"220 hi\r\n", true, false, TAV_TLS_FAILED_CLEAR},
      {"", false, false, TAV_TLS_FAILED_TIMEOUT},
      {"\x16\3\3", false, false, TAV_TLS_FAILED_TIMEOUT},
      {"", false, true, TAV_TLS_FAILED_CUT},
      {"\x16\3\3", false, true, TAV_TLS_FAILED_CUT},
      {"500 what?\r\n", false, false, TAV_TLS_FAILED_NOT_TLS},
      {"500 what?\r\n", false, true, TAV_TLS_FAILED_NOT_TLS},
      {"HTTP/1.1 400 Bad Request\r\n", false, true, TAV_TLS_FAILED_NOT_TLS},
      {std::string("\x15\3\3\0\2\2\x46", 7), false, true, TAV_TLS_FAILED_VERSION},
      {old_hello, false, false, TAV_TLS_FAILED_VERSION},
      {std::string("\x15\3\3\0\2\2\x28", 7), false, true, "handshake failure"},
  };
  static std::vector<std::string> told;
  for (const auto& test : cases) {
    serve([&test](int fd) {
      char hello[2000];
      if (!test.is_early) recv(fd, hello, sizeof hello, 0);
      send(fd, test.answer.data(), test.answer.size(), MSG_NOSIGNAL);
      while (!test.hangs_up && recv(fd, hello, sizeof hello, 0) > 0) {
      }
    });
    told.clear();
    tav_wiretap_set(
        [](void*, TAV_WIRETAP_EVENT event, const char* bytes, size_t length) {
          if (event == TAV_WIRETAP_TLS_FAILED) told.emplace_back(bytes, length);
        },
        nullptr);
    m_sock = connect_to("localhost", m_listener.port());
    pollfd poll_fd = {m_sock, POLLIN, 0};
    if (test.is_early) poll(&poll_fd, 1, 2000);
    ASSERT_EQ(tlsw_init(&m_context), TLSW_OK);
    const TLSW_CONNECT_PARAM param{m_sock, 300, {1, 0, 0, 0, 0}, {}};
    EXPECT_NE(tlsw_connect_timeo(m_context, &param, &m_session), TLSW_OK);
    finish();
    m_server.join();
    tav_wiretap_set(nullptr, nullptr);
    ASSERT_EQ(told.size(), 1u) << test.answer;
    EXPECT_NE(told[0].find(test.reason), std::string::npos) << told[0] << " for " << test.answer;
  }
}

// Writes the certificate anew with these alternative names and this issuer.
void forge_names(const tav_test::certificate_files& files,
                 const std::vector<std::pair<int, std::string>>& names, const std::string& issuer) {
  const auto close_file = [](std::FILE* file) { std::fclose(file); };
  const std::unique_ptr<std::FILE, decltype(close_file)> file(
      std::fopen(files.certificate.c_str(), "r+"), close_file);
  const std::unique_ptr<std::FILE, decltype(close_file)> key_file(
      std::fopen(files.key.c_str(), "r"), close_file);
  X509* const cert = PEM_read_X509(file.get(), nullptr, nullptr, nullptr);
  EVP_PKEY* const key = PEM_read_PrivateKey(key_file.get(), nullptr, nullptr, nullptr);
  GENERAL_NAMES* const list = GENERAL_NAMES_new();
  for (const auto& [type, text] : names) {
    GENERAL_NAME* const entry = GENERAL_NAME_new();
    ASN1_STRING* const value =
        ASN1_STRING_type_new(type == GEN_DNS ? V_ASN1_IA5STRING : V_ASN1_OCTET_STRING);
    ASN1_STRING_set(value, text.data(), static_cast<int>(text.size()));
    GENERAL_NAME_set0_value(entry, type, value);
    sk_GENERAL_NAME_push(list, entry);
  }
  X509_add1_ext_i2d(cert, NID_subject_alt_name, list, 0, X509V3_ADD_REPLACE);
  X509_NAME* const name = X509_NAME_new();
  X509_NAME_add_entry_by_NID(name, NID_commonName, V_ASN1_UTF8STRING,
                             reinterpret_cast<const unsigned char*>(issuer.data()),
                             static_cast<int>(issuer.size()), -1, 0);
  X509_set_issuer_name(cert, name);
  X509_sign(cert, key, EVP_sha256());
  std::rewind(file.get());
  PEM_write_X509(file.get(), cert);
  X509_NAME_free(name);
  GENERAL_NAMES_free(list);
  EVP_PKEY_free(key);
  X509_free(cert);
}

TEST_F(TlsContract, names_of_a_certificate_forge_nothing) {
  use(certificate_kind::good);
  forge_names(m_files,
              {{GEN_IPADD, "abc"},  // no address: nothing is read behind it
               {GEN_IPADD, ""},
               {GEN_DNS, "a\nb\r\x1B[2J\x7F"},
               {GEN_DNS, "x, y.example"},
               {GEN_DNS, "raw\x9B utf\xC2\x9B turned\xE2\x80\xAE"},
               {GEN_IPADD, "\x7F\0\0\1"s},
               {GEN_DNS, std::string(300, 'n')}},
              "Auth\xC3\xB6rity\n2099-01-01\xC2\x85\xE2\x80\xA8\xE2\x81\xA6 1");
  static std::string told;
  tav_wiretap_set(
      [](void*, TAV_WIRETAP_EVENT event, const char* bytes, size_t length) {
        if (event == TAV_WIRETAP_TLS_CERTIFICATE) told.assign(bytes, length);
      },
      nullptr);
  serve_tls();
  EXPECT_EQ(start("localhost", {0}), TLSW_OK) << g_log;
  finish();
  tav_wiretap_set(nullptr, nullptr);
  EXPECT_EQ(
      told.substr(0, told.find('\n')),
      "a?b??[2J?, x??y.example, raw??utf??turned?, 127.0.0.1, " + std::string(253, 'n') + "...");
  EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 3) << told;
  EXPECT_EQ(told.substr(told.rfind('\n')), "\nAuth\xC3\xB6rity?2099-01-01??? 1");
}
#endif

TEST_F(TlsContract, options_that_mean_nothing_are_refused) {
  use(certificate_kind::good);
  const std::initializer_list<uint8_t> bad[] = {{2},       {0, 1},       {0, 5},
                                                {0, 0, 1}, {0, 0, 0, 5}, {0, 0, 0, 0, 1}};
  for (const auto& options : bad) {
    serve([](int) {});
    EXPECT_EQ(start("localhost", options), TLSW_ERR_PARAM);
    finish();
    m_server.join();
  }
  serve_tls();
  EXPECT_EQ(start("localhost", {1, 3, 0, 3, 0}), TLSW_OK) << g_log;
  EXPECT_NE(g_log.find("TLSv1.2"), std::string::npos) << g_log;
  finish();
}

}  // namespace
