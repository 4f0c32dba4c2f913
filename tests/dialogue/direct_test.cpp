// What the facades do not show: the transport and the parser called directly.

#include <climits>

#include "device.h"

namespace dialogue {
namespace {

struct Direct : testing::Test {
  Direct() { net.names[kServer] = {kAddress}; }
  ~Direct() override { EXPECT_TRUE(net.clean()); }

  // A connection to a server that says this.
  TAV_EML_RESULT connect(const std::string& said = "", uint16_t port = 110) {
    host.script.add("greeting " + device::exact(said) + "\n");
    net.serve(kAddress, host);
    return transport.connect_mail(&sock, kServer, port, 1000, 0);
  }

  mailhost::mail_host host;
  fake_platform net;
  log_capture log;
  tav_eml_mlutl_mail_net transport;
  TAV_EML_TLS_INFO tls = {};
  int sock = 0;
};

TEST_F(Direct, the_parser_needs_a_connection_and_a_message) {
  using parser = tav_eml_mlutl_receive;
  for (const auto read : {&parser::receive_header_only, &parser::receive_body,
                          &parser::receive_part_header, &parser::receive_part_body}) {
    tav_eml_mlutl_mail ended;
    ended.m_nReceiving = 0;
    int none = 0, some = 3;
    EXPECT_EQ((parser().*read)(ended, none, 7, tls), TAV_EML_UTL_NOT_CONNECTED);
    EXPECT_EQ((parser().*read)(ended, some, 7, tls), TAV_EML_UTL_ERROR);
  }
  EXPECT_EQ(log.count(" not connected") * 10 + log.count(" no data."), 44u);
}

TEST_F(Direct, reads_one_line_and_nothing_after_it) {
  const struct {
    const char* sent;
    long size;
    TAV_EML_RESULT result;
    const char* line;
    long size_out;
  } cases[] = {
      {"abcdefghijkl^", 10, TAV_EML_OK, "abcdefghi", 10},
      {"ab\\ncd^next", 100, TAV_EML_OK, "ab\\ncd^", 8},
      {"^", 100, TAV_EML_OK, "^", 3},
      {"a\\r^", 100, TAV_EML_OK, "a\\r^", 5},
      {"x", 2, TAV_EML_OK, "x", 2},
      {"abc", 10, TAV_EML_ERR_TRANSFER_TIMEOUT, nullptr, 10},
      {"abc", 1, TAV_EML_ERR_UNKNOWN, nullptr, 1},
  };
  for (const auto& test : cases) {
    ASSERT_EQ(connect(test.sent), TAV_EML_OK);
    char buffer[100];
    long size = test.size;
    EXPECT_EQ(transport.recv_one_line(sock, buffer, size, 0, 1000, tls), test.result);
    if (test.line != nullptr) {
      EXPECT_EQ(buffer, expand(test.line));
      EXPECT_EQ(size, test.size_out);
    }
    transport.close_socket(sock);
  }
  EXPECT_TRUE(log.contains("RecvOneLine : size <= 1"));
}

TEST_F(Direct, closes_a_socket_unless_shutdown_gives_an_unknown_code) {
  ASSERT_EQ(connect(), TAV_EML_OK);
  net.fail("shutdown", 1, -1);
  EXPECT_EQ(transport.close_socket(sock), TAV_EML_ERR_SOCKET);
  ASSERT_EQ(connect(), TAV_EML_OK);
  net.fail("shutdown", 2, 3);
  EXPECT_EQ(transport.close_socket(sock), TAV_EML_ERR_UNKNOWN);
  EXPECT_TRUE(log.contains("shutdown [UNKNOWN]"));
  EXPECT_EQ(transport.close_socket(sock), TAV_EML_OK);  // it was still open
}

TEST_F(Direct, a_failed_connect_leaves_the_handle_that_there_was) {
  net.refuse(kAddress, 25, -1);
  EXPECT_EQ(transport.connect_mail(&sock, kServer, 25, 1000, 0), TAV_EML_ERR_CONNECT);
  EXPECT_EQ(sock, 0);
  net.fail("socket", 2, -5);
  EXPECT_EQ(transport.connect_mail(&sock, kServer, 25, 1000, 0), TAV_EML_ERR_SOCKET);
  EXPECT_EQ(sock, -5);
}

// Whoever calls the commands one by one has no object that closes what they leave.
TEST_F(Direct, commands_that_end_a_session_close_it) {
  const tav_eml_smtp_settings settings{_tav_eml_smtp_setting()};
  char sent[SMTP_BUFFER_SIZE], received[SMTP_BUFFER_SIZE];
  ntssmtp_fileptr session = {0, SMTP_CONNECT, sent, received, {}};
  tav_eml_smtp_command smtp;
  const auto stls = [&] {
    return tav_eml_pop3_command::NegotiateStartTLS(nullptr, session.sock, session.tls_info, 1);
  };
  const struct {
    uint16_t port;
    const char* script;
    TAV_EML_RESULT result;
    std::function<TAV_EML_RESULT()> end;
  } cases[] = {
      {110, "", TAV_EML_ERR_TLS_CONNECT, stls},
      {110, R"(CAPA "+OK" "STLS" ".")", TAV_EML_ERR_REPLY, stls},
      {110, R"(CAPA "+OK" "STLS" "x"*1100 ".")", TAV_EML_ERR_REPLY, stls},
      {110, R"(CAPA "+OK" "\0" ".")", TAV_EML_ERR_REPLY, stls},
      {110, R"(every "+OK" "STLS" ".")", TAV_EML_ERR_UNKNOWN, stls},
      {25, "", TAV_EML_ERR_REPLY,
       [&] { return smtp.NegotiateStartTLS(session.sock, 1, session.tls_info); }},
      {25, R"(every "502 no")", TAV_EML_ERR_REPLY,
       [&] { return smtp.tav_eml_smtp_pnon_auth_ehlo(&settings, &session); }},
      {25, "", TAV_EML_OK, [&] { return smtp.tav_eml_smtp_disconnect(&settings, &session); }},
  };
  for (const auto& test : cases) {
    host.script.clear();
    host.script.add(test.script);
    ASSERT_EQ(connect("", test.port), TAV_EML_OK);
    session.sock = sock;
    EXPECT_EQ(test.end(), test.result) << test.script << "\n" << log.all();
    EXPECT_EQ(net.leaks(), "") << test.script;
  }
}

TEST_F(Direct, the_parser_hands_out_one_line_with_its_end) {
  ASSERT_EQ(connect("one^two^"), TAV_EML_OK);
  UtlString line;
  long length = 0;
  EXPECT_EQ(tav_eml_mlutl_receive().ReadLine(7, sock, line, length, tls), TAV_EML_UTL_OK);
  EXPECT_STREQ(line.GetString(), "one\r\n");
  EXPECT_EQ(length, 5);
  EXPECT_EQ(transport.close_socket(sock), TAV_EML_OK);
}

// Without moving so much: the operation that counts a line's bytes is told of a long one.
TEST_F(Direct, a_message_ends_at_two_gibibytes) {
  using parser = tav_eml_mlutl_receive;
  using mail = tav_eml_mlutl_mail;
  const std::pair<const char*, std::function<TAV_EML_UTL_RETCODE(parser&, mail&)>> steps[] = {
      {"skip_mail", [&](parser& r, mail& m) { return r.skip_mail(m, 7, sock, tls); }},
      {"skip_part", [&](parser& r, mail& m) { return r.skip_part(m, 7, sock, tls); }},
      {"header", [&](parser& r, mail& m) { return r.receive_part_header(m, sock, 7, tls); }},
      {"body",
       [&](parser& r, mail& m) {
         auto code = TAV_EML_UTL_OK;
         while (code == TAV_EML_UTL_OK) code = r.receive_part_body(m, sock, 7, tls);
         return code;
       }},
  };
  for (const auto& [name, read_on] : steps) {
    ASSERT_EQ(connect("Content-Type: multipart/mixed; boundary=b^^{preamble^*100000}"), TAV_EML_OK);
    parser receiver;
    mail endless;
    endless.set_part(new tav_eml_mlutl_mail_part);
    ASSERT_EQ(receiver.receive_header(endless, sock, 7, 0, tls), TAV_EML_UTL_OK);
    UtlString counted("x\r\n");
    receiver.ChkMailEndLine(endless, counted, INT_MAX - 10000, 0);
    EXPECT_EQ(read_on(receiver, endless), TAV_EML_UTL_BAD_REPLY);
    EXPECT_TRUE(log.contains("message without end"));
    EXPECT_TRUE(log.contains(std::string(name) + "(): ReadLine() returns")) << log.all();
    EXPECT_EQ(sock, 0);
    log.clear();
  }
}

}  // namespace
}  // namespace dialogue
