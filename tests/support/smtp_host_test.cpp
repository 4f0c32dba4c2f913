// smtp_host_test.cpp - the host fed directly, without any transport.

#include "smtp_host.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tav_test {
namespace {

using lines = std::vector<std::string>;

// What the peer says in return, up to where it wants TLS or closes ("<tls>", "<close>").
std::string answers(mail_peer& peer) {
  std::string text;
  for (; !peer.actions.empty(); peer.actions.pop_front()) {
    const peer_action& action = peer.actions.front();
    text += action.kind == peer_action::send        ? action.bytes
            : action.kind == peer_action::start_tls ? "<tls>"
                                                    : "<close>";
  }
  return text;
}

std::string talk(mail_peer& peer, const std::string& bytes, size_t chunk = SIZE_MAX) {
  for (size_t at = 0; at < bytes.size(); at += std::min(chunk, bytes.size()))
    peer.received(std::string_view(bytes).substr(at, chunk));
  return answers(peer);
}

std::unique_ptr<mail_peer> greeted(smtp_host& host) {
  auto peer = host.accept();
  peer->connected(false);
  answers(*peer);
  return peer;
}

const std::string envelope =
    "EHLO me\r\nMAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\nRCPT TO:<e@f>\r\nDATA\r\n";
const std::string whole_session =
    envelope + "Subject: x\r\n\r\n..\r\n..two\r\nlone\n.\r\nend\r\n.\r\nQUIT\r\n";

TEST(SmtpHost, takes_a_session_in_any_slicing) {
  std::string first;
  for (const size_t chunk : {size_t{1}, size_t{2}, size_t{7}, size_t{64}, SIZE_MAX}) {
    smtp_host host;
    auto peer = greeted(host);
    const std::string said = talk(*peer, whole_session, chunk);
    if (first.empty()) first = said;
    EXPECT_EQ(said, first);
    EXPECT_EQ(host.client_bytes(), whole_session);
    ASSERT_EQ(host.messages().size(), 1u);
    const smtp_message& message = host.messages()[0];
    EXPECT_EQ(message.data, "Subject: x\r\n\r\n.\r\n.two\r\nlone\n.\r\nend\r\n");
    EXPECT_EQ(message.from, "a@b");
    EXPECT_EQ(message.to, (lines{"c@d", "e@f"}));
    EXPECT_EQ(message.helo, "me");
    EXPECT_FALSE(message.tls);
  }
  EXPECT_EQ(first.substr(first.size() - 22), "221 2.0.0 bye\r\n<close>");
}

TEST(SmtpHost, refuses_what_is_out_of_order_or_malformed) {
  const struct {
    const char* said;
    const char* code;
  } cases[] = {
      {"MAIL FROM:<a@b>\r\n", "503"},
      {"EHLO\r\n", "501"},
      {"EHLO me\n", "500"},
      {"STARTTLS\r\n", "502"},
      {"DATA\r\n", "503"},
      {"RCPT TO:<a@b>\r\n", "503"},
      {"VRFY a\r\n", "502"},
      {"AUTH PLAIN AGEAYg==\r\n", "502"},
  };
  for (const auto& c : cases) {
    smtp_host host;
    EXPECT_EQ(talk(*greeted(host), c.said).substr(0, 3), c.code) << c.said;
  }
  const struct {
    const char* argument;
    const char* code;
  } paths[] = {
      {"FROM:<a@b>", "250"},
      {"from:<>", "250"},
      {"FROM:<\"x>y\"@b> SIZE=10", "250"},
      {"FROM: <a@b>", "501"},
      {"FROM:a@b", "501"},
      {"FROM:<a@b", "501"},
      {"FROM:<a@b>x", "501"},
      {"FROM:<a@b> SIZE=101", "552"},
      {"FROM:<a@b> SIZE=x", "552"},
  };
  for (const auto& c : paths) {
    smtp_host host;
    host.size_limit(100);
    auto peer = greeted(host);
    talk(*peer, "HELO me\r\n");
    EXPECT_EQ(talk(*peer, std::string("MAIL ") + c.argument + "\r\n").substr(0, 3), c.code)
        << c.argument;
  }
}

TEST(SmtpHost, a_message_over_the_limit_is_refused) {
  smtp_host host;
  host.size_limit(10);
  auto peer = greeted(host);
  talk(*peer, envelope);
  EXPECT_EQ(talk(*peer, "0123456789\r\n.\r\n"), "552 5.3.4 message too big\r\n");
  EXPECT_TRUE(host.messages().empty());
}

TEST(SmtpHost, follows_its_script) {
  smtp_host host;
  host.reply_to("MAIL", 1, "451 4.3.0 busy\r\n");
  host.reply_to("RCPT", 2, "250-half\r\n250");
  host.silence_at("DATA", 1);
  host.close_at(smtp_host::end_of_data, 1, "421 out\r\n");
  auto peer = greeted(host);
  talk(*peer, "EHLO me\r\n");
  EXPECT_EQ(talk(*peer, "MAIL FROM:<a@b>\r\n"), "451 4.3.0 busy\r\n");
  EXPECT_EQ(talk(*peer, "RCPT TO:<c@d>\r\n").substr(0, 3), "503");  // a refused MAIL began nothing
  talk(*peer, "MAIL FROM:<a@b>\r\n");
  EXPECT_EQ(talk(*peer, "RCPT TO:<c@d>\r\n"), "250-half\r\n250");
  EXPECT_EQ(talk(*peer, "DATA\r\n"), "");
  EXPECT_EQ(talk(*peer, "DATA\r\n").substr(0, 3), "354");
  EXPECT_EQ(talk(*peer, "x\r\n.\r\n"), "421 out\r\n<close>");
  EXPECT_TRUE(host.messages().empty());
  EXPECT_EQ(host.occurrences("DATA"), 2u);

  host.close_at(scripted_host::greeting, 2);
  auto second = host.accept();
  second->connected(false);
  EXPECT_EQ(answers(*second), "<close>");
  host.close_after(8, 3);
  auto third = greeted(host);
  EXPECT_EQ(talk(*third, "NOOP\r\nNOOP\r\n", 3), "250 2.0.0 ok\r\n<close>");
  EXPECT_EQ(host.client_bytes(3), "NOOP\r\nNO");
}

TEST(SmtpHost, keeps_credentials_out_of_the_transcript) {
  smtp_host host;
  host.capabilities({"AUTH PLAIN LOGIN"});
  host.reply_to("AUTH", 1, "334 VXNlcm5hbWU6\r\n");
  host.reply_to(smtp_host::auth_answer, 1, "334 UGFzc3dvcmQ6\r\n");
  host.reply_to("AUTH", 3, "235 ok\r\n");
  auto peer = greeted(host);
  talk(*peer,
       "EHLO me\r\nAUTH LOGIN\r\nc2VjcmV0\r\nc2VjcmV0\r\nc2VjcmV0\r\nAUTH c2VjcmV0\r\n"
       "AUTH PLAIN c2VjcmV0\r\nMAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\nDATA\r\nx\x1b\r\n.\r\nc2VjcmV0");
  peer->closed();
  EXPECT_TRUE(host.messages()[0].authenticated);
  EXPECT_EQ(host.transcript(), (lines{"-- connection 1",
                                      "S: 220 mail.example ESMTP",
                                      "C: EHLO me",
                                      "S: 250-mail.example",
                                      "S: 250 AUTH PLAIN LOGIN",
                                      "C: AUTH LOGIN",
                                      "S: 334 VXNlcm5hbWU6",
                                      "C: [masked]",
                                      "S: 334 UGFzc3dvcmQ6",
                                      "C: [masked]",
                                      "S: 535 5.7.8 authentication failed",
                                      "C: [unknown command]",
                                      "S: 502 5.5.1 command not known",
                                      "C: AUTH [masked]",
                                      "S: 502 5.5.1 command not known",
                                      "C: AUTH PLAIN [masked]",
                                      "S: 235 ok",
                                      "C: MAIL FROM:<a@b>",
                                      "S: 250 2.1.0 sender ok",
                                      "C: RCPT TO:<c@d>",
                                      "S: 250 2.1.5 recipient ok",
                                      "C: DATA",
                                      "S: 354 end with a line of one dot",
                                      "C: [4 bytes of message]",
                                      "C: .",
                                      "S: 250 2.0.0 message accepted",
                                      "C: [8 bytes without line end]",
                                      "-- closed"}));
}

TEST(SmtpHost, asks_a_handler_for_what_it_does_not_know) {
  smtp_host host;
  host.handle("AUTH", [](const smtp_host::request& asked) {
    return asked.argument == "PLAIN" ? "334 \r\n" : "504 no\r\n";
  });
  host.handle(smtp_host::auth_answer, [](const smtp_host::request& asked) {
    return asked.argument == "right" ? "235 ok\r\n" : "535 no\r\n";
  });
  auto peer = greeted(host);
  EXPECT_EQ(talk(*peer, "AUTH X\r\n"), "504 no\r\n");
  EXPECT_EQ(talk(*peer, "AUTH PLAIN\r\nwrong\r\n"), "334 \r\n535 no\r\n");
  EXPECT_EQ(talk(*peer, "AUTH PLAIN\r\nright\r\n"), "334 \r\n235 ok\r\n");
}

TEST(SmtpHost, forgets_what_was_said_before_tls) {
  smtp_host host;
  host.capabilities({"SIZE 10", "STARTTLS"});
  auto peer = greeted(host);
  EXPECT_EQ(talk(*peer, "EHLO me\r\nMAIL FROM:<a@b>\r\nSTARTTLS\r\nRCPT TO:<x@y>\r\n"),
            "250-mail.example\r\n250-SIZE 10\r\n250 STARTTLS\r\n250 2.1.0 sender ok\r\n"
            "220 2.0.0 ready to start TLS\r\n<tls>");
  peer->tls_started();
  EXPECT_EQ(talk(*peer, "RCPT TO:<c@d>\r\n").substr(0, 3), "503");
  EXPECT_EQ(talk(*peer, "EHLO me\r\n"), "250-mail.example\r\n250 SIZE 10\r\n");
  EXPECT_EQ(host.client_bytes_under_tls(), "RCPT TO:<c@d>\r\nEHLO me\r\n");
}

}  // namespace
}  // namespace tav_test
