// The transport by itself.

#include "dialogue_fixture.h"

namespace dialogue {
namespace {

using calls = std::vector<std::string>;

struct Transport : testing::Test {
  ~Transport() override { EXPECT_TRUE(net.clean()); }

  TAV_EML_RESULT connect() { return transport.connect_mail(&sock, kServer, 25, 1500, 0); }
  void close() {
    transport.end_tls(tls);
    transport.close_socket(sock);
  }

  smtp_host host;
  fake_platform net;
  log_capture log;
  tav_eml_mlutl_mail_net transport;
  TAV_EML_TLS_INFO tls;
  int sock = 0;
};

TEST_F(Transport, tries_a_link_local_address_last_and_only_the_last_one) {
  net.resolve(kServer, {"fe80::1", "2001:db8::1", "fe80::2", "192.0.2.1"});
  EXPECT_EQ(connect(), TAV_EML_ERR_CONNECT);
  EXPECT_EQ(sock, 0);
  EXPECT_EQ(net.calls({net_call::set_scope, net_call::connect}).size(), 4u);
  const calls connects = net.calls({net_call::connect});
  ASSERT_EQ(connects.size(), 3u);
  EXPECT_EQ(connects[0], "connect [2001:db8::1]:25 = -1");
  EXPECT_EQ(connects[1], "connect 192.0.2.1:25 = -1");
  EXPECT_EQ(connects[2].substr(0, 20), "connect [fe80::2]:25");
  EXPECT_EQ(net.timeouts(net_call::connect), std::set<int64_t>{1500});
}

TEST_F(Transport, gives_the_code_of_the_last_address_tried) {
  const struct {
    int32_t first;
    int32_t last;
    TAV_EML_RESULT expected;
    const char* message;
  } cases[] = {{-1, -2, TAV_EML_ERR_CONNECT_TIMEOUT, "[TIMEOUT]"},
               {-2, -1, TAV_EML_ERR_CONNECT, "[ERROR]"},
               {-1, 5, TAV_EML_ERR_UNKNOWN, "[UNKNOWN]"}};
  net.resolve(kServer, {"192.0.2.1", "192.0.2.2"});
  for (const auto& test : cases) {
    net.connect_result("192.0.2.1", 25, test.first);
    net.connect_result("192.0.2.2", 25, test.last);
    EXPECT_EQ(connect(), test.expected);
    EXPECT_TRUE(log.contains(test.message));
  }
}

TEST_F(Transport, stops_where_no_socket_or_scope_can_be_had) {
  net.resolve(kServer, {"fe80::1"});
  net.fail(net_call::set_scope, 1, 7);
  EXPECT_EQ(connect(), TAV_EML_ERR_SOCKET);
  EXPECT_EQ(sock, 0);
  net.fail(net_call::socket, 2, -5);
  EXPECT_EQ(connect(), TAV_EML_ERR_SOCKET);
  EXPECT_EQ(sock, -5);
  EXPECT_TRUE(log.contains("<Error>:connect_mail:[Result]tav_netsock_socket returns -5"));
}

TEST_F(Transport, a_name_without_an_address_is_a_bad_parameter) {
  EXPECT_EQ(connect(), TAV_EML_ERR_PARAM);
  EXPECT_TRUE(log.contains("tav_netsock_getaddrinfo()"));
  net.resolve(kServer, {});
  EXPECT_EQ(connect(), TAV_EML_ERR_PARAM);
  EXPECT_TRUE(log.contains("no address about host name"));
  EXPECT_EQ(transport.connect_mail(&sock, nullptr, 25, 1000, 0), TAV_EML_ERR_PARAM);
  EXPECT_EQ(transport.connect_mail(nullptr, "192.0.2.1", 25, 1000, 0), TAV_EML_ERR_PARAM);
}

TEST_F(Transport, reads_one_line_and_nothing_behind_it) {
  const struct {
    const char* sent;
    long size;
    const char* line;
    long size_out;
  } cases[] = {
      {"abcdefghijkl\r\n", 10, "abcdefghi", 10},
      {"ab\ncd\r\nnext", 100, "ab\ncd\r\n", 8},
      {"\r\n", 100, "\r\n", 3},
      {"a\r\r\n", 100, "a\r\r\n", 5},
      {"x", 2, "x", 2},
  };
  net.resolve(kServer, {kAddress});
  net.serve(kAddress, 25, host);
  for (const auto& test : cases) {
    host.reply_to(smtp_host::greeting, smtp_host::every, test.sent);
    ASSERT_EQ(connect(), TAV_EML_OK);
    char buffer[100];
    long size = test.size;
    EXPECT_EQ(transport.recv_one_line(sock, buffer, size, 0, 1000, tls), TAV_EML_OK);
    EXPECT_STREQ(buffer, test.line);
    EXPECT_EQ(size, test.size_out);
    close();
  }
}

TEST_F(Transport, a_line_that_does_not_come_is_an_error) {
  net.resolve(kServer, {kAddress});
  char buffer[10];
  long size = 1;
  EXPECT_EQ(transport.recv_one_line(1, buffer, size, 0, 1000, tls), TAV_EML_ERR_UNKNOWN);
  EXPECT_EQ(transport.recv_one_line(1, nullptr, size, 0, 1000, tls), TAV_EML_ERR_UNKNOWN);
  net.serve(kAddress, 25, host);
  host.close_at(smtp_host::greeting, 1, "abc");
  host.reply_to(smtp_host::greeting, 2, "abc");
  for (const bool closes : {true, false}) {
    ASSERT_EQ(connect(), TAV_EML_OK);
    size = sizeof buffer;
    EXPECT_EQ(transport.recv_one_line(sock, buffer, size, 0, 1000, tls),
              closes ? TAV_EML_ERR_REPLY : TAV_EML_ERR_TRANSFER_TIMEOUT);
    close();
  }
}

TEST_F(Transport, hands_the_tls_options_over_in_the_wrappers_order) {
  net.resolve(kServer, {kAddress});
  net.serve(kAddress, 25, host, tls_mode::implicit);
  for (const uint8_t first : {uint8_t{1}, uint8_t{2}}) {
    ASSERT_EQ(connect(), TAV_EML_OK);
    tls = {};
    tls.tls_opt0 = first;
    tls.tls_opt1 = 11;
    tls.tls_opt2 = 12;
    tls.tls_opt3 = 13;
    tls.tls_opt4 = 14;
    ASSERT_EQ(transport.start_tls(sock, 0x01020304, tls), TAV_EML_OK);
    EXPECT_NE(tls.tls_ctx, 0u);
    EXPECT_NE(tls.tls_session, 0u);
    const auto sent = net.tls_records().back();
    const std::vector<uint8_t> options(sent.begin() + 8, sent.end());
    EXPECT_EQ(options, (std::vector<uint8_t>{first == 1 ? uint8_t{1} : uint8_t{0}, 12, 13, 11, 14,
                                             0, 0, 0}));
    close();
    EXPECT_EQ(tls.tls_ctx + tls.tls_session, 0u);
    EXPECT_EQ(transport.end_tls(tls), TAV_EML_OK);
  }
}

TEST_F(Transport, tells_why_tls_failed_and_leaves_no_handle) {
  const struct {
    net_call call;
    int32_t code;
    TAV_EML_RESULT expected;
  } cases[] = {{net_call::tls_init, 0x72010007, TAV_EML_ERR_TLS_INIT_RESOURCE},
               {net_call::tls_init, 0x72010008, TAV_EML_ERR_TLS_INIT_RESOURCE},
               {net_call::tls_init, 0x72010001, TAV_EML_ERR_TLS_INIT},
               {net_call::tls_connect, 0x7201001D, TAV_EML_ERR_TLS_CONNECT_REFUSED},
               {net_call::tls_connect, 0x72010006, TAV_EML_ERR_TLS_CONNECT}};
  net.resolve(kServer, {kAddress});
  net.serve(kAddress, 25, host, tls_mode::implicit);
  for (const auto& test : cases) {
    ASSERT_EQ(connect(), TAV_EML_OK);
    net.fail_from(test.call, 1, test.code);
    EXPECT_EQ(transport.start_tls(sock, 1000, tls), test.expected);
    EXPECT_EQ(tls.tls_ctx + tls.tls_session, 0u);
    net.never_fail();
    close();
  }
}

TEST_F(Transport, closes_a_socket_unless_its_shutdown_is_unheard_of) {
  net.resolve(kServer, {kAddress});
  net.serve(kAddress, 25, host);
  ASSERT_EQ(connect(), TAV_EML_OK);
  net.fail(net_call::shutdown, 1, -1);
  EXPECT_EQ(transport.close_socket(sock), TAV_EML_ERR_SOCKET);
  ASSERT_EQ(connect(), TAV_EML_OK);
  net.fail(net_call::shutdown, 2, 3);
  EXPECT_EQ(transport.close_socket(sock), TAV_EML_ERR_UNKNOWN);
  EXPECT_EQ(transport.close_socket(sock), TAV_EML_OK);  // it was still open
}

}  // namespace
}  // namespace dialogue
