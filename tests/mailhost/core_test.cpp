// The practice mail server without sockets: its script, and how it reads what clients send.

#include <gtest/gtest.h>

#include <string>

#include "mail_host.h"
#include "md5.h"
#include "text.h"

namespace mailhost {
namespace {

constexpr char nul = '\0';

// What is said to the bytes; behind the greeting, unless the script is about that.
std::string said(mail_host& host, protocol speaks, const std::string& bytes) {
  const auto peer = host.connect(speaks);
  peer->connected(false);
  const std::string greeting = peer->talk("");
  return (greeting == "220 localhost ESMTP\r\n" ? "" : greeting) + peer->talk(bytes);
}

TEST(MailHost, departs_from_the_ordinary_where_its_script_says_so) {
  const struct {
    std::string script, client, expected;
  } cases[] = {
      {"", "HELO x\r\nNOOP\r\n", "250 localhost\r\n250 2.0.0 ok\r\n"},
      {"HELO \"502 no\"  # comment", "HELO x\r\n", "502 no\r\n"},
      {"HELO \"250-a\" \"250 b\"", "HELO x\r\n", "250-a\r\n250 b\r\n"},
      {"NOOP 2 \"4\"", "NOOP\r\nNOOP\r\nNOOP\r\n", "250 2.0.0 ok\r\n4\r\n250 2.0.0 ok\r\n"},
      {"NOOP 2+ \"4\"", "NOOP\r\nNOOP\r\nNOOP\r\n", "250 2.0.0 ok\r\n4\r\n4\r\n"},
      {"NOOP 1-2 \"4\"\nNOOP 2 \"5\"", "NOOP\r\nNOOP\r\nNOOP\r\n", "4\r\n5\r\n250 2.0.0 ok\r\n"},
      {"every \"4\"\nHELO \"250\"\n greeting \"220\"", "HELO x\r\nNOOP\r\n", "220\r\n250\r\n4\r\n"},
      {"every 2 \"4\"", "NOOP\r\nNOOP\r\n", "4\r\n250 2.0.0 ok\r\n"},
      {"pop3 NOOP \"-\"\nother \"5\"", "NOOP\r\nXYZ\r\n", "250 2.0.0 ok\r\n5\r\n"},
      {"NOOP silence", "NOOP\r\nVRFY x\r\n", "252 2.1.5 try it with RCPT\r\n"},
      {"NOOP close", "NOOP\r\nNOOP\r\n", ""},
      {"NOOP \"421 x\" close", "NOOP\r\nNOOP\r\n", "421 x\r\n"},
      {"NOOP cut 5", "NOOP\r\nNOOP\r\n", "250 2"},
      {"NOOP \"2\" flood 3", "NOOP\r\n", "2\r\n2\r\n2\r\n"},
      {"NOOP inject \"250 x\" \"y\"", "NOOP\r\n", "250 2.0.0 ok\r\n250 x\r\ny\r\n"},
      {"NOOP \"2 \\x41\\0\\\\\\\"\\t\\r\\n\"", "NOOP\r\n", std::string("2 A") + nul + "\\\"\t\r\n"},
      {"NOOP \"lone\\n\"", "NOOP\r\n", "lone\n"},
      {"NOOP bytes \"25\" \"0\"*3", "NOOP\r\n", "25000"},
      // What a command does follows the reply that was sent.
      {"DATA \"354\"\n. \"250 a\"", "DATA\r\nNOOP\r\n.\r\nNOOP\r\n",
       "354\r\n250 a\r\n250 2.0.0 ok\r\n"},
      {"AUTH \"334 \"\nanswer 1 \"334 \"\nanswer 2 \"235\"", "AUTH X\r\na\r\nb\r\nNOOP\r\n",
       "334 \r\n334 \r\n235\r\n250 2.0.0 ok\r\n"},
      // What came in clear after the command is not read under TLS.
      {"STARTTLS \"220\" inject \"250 x\"", "STARTTLS\r\nNOOP\r\n", "220\r\n250 x\r\n"},
  };
  for (const auto& test : cases) {
    mail_host host;
    host.script.add(test.script);
    EXPECT_EQ(said(host, protocol::smtp, test.client), test.expected) << test.script;
  }
}

TEST(MailHost, a_script_may_ask_for_time_and_for_a_reset) {
  mail_host host;
  host.script.add("every drip 100ms\nNOOP delay 2s \"250\" reset");
  const auto peer = host.connect(protocol::smtp);
  peer->received("NOOP\r\n");
  ASSERT_EQ(peer->actions.size(), 3u);
  EXPECT_EQ(peer->actions[0].kind, action::wait);
  EXPECT_EQ(peer->actions[0].time.count(), 2000);
  EXPECT_EQ(peer->actions[1].bytes, "250\r\n");
  EXPECT_EQ(peer->actions[2].kind, action::reset);
}

TEST(MailHost, a_script_that_is_not_understood_is_told_by_its_line) {
  const struct {
    const char* script;
    const char* expected;
  } cases[] = {
      {"ELHO \"x\"", "line 1: \"ELHO\" is no point"},
      {"# x\n\nEHLO", "line 3: what is to be done at EHLO is missing"},
      {"EHLO quiet", "\"quiet\" is no action"},
      {"EHLO 0 \"x\"", "the count wants a number from 1"},
      {"EHLO 2x \"x\"", "a count is"},
      {"EHLO 3-2 \"x\"", "the count wants a number from 3"},
      {"EHLO \"x", "the string has no end"},
      {"EHLO \"x\\", "the string has no end"},
      {"EHLO \"\\y\"", "unknown escape \"\\y\""},
      {"EHLO \"\\x4\"", "unknown escape \"\\x\""},
      {"EHLO bytes", "\"bytes\" wants a string"},
      {"EHLO \"x\" close \"y\"", "there is a reply already"},
      {"EHLO silence close", "one of silence, close and reset"},
      {"EHLO silence \"x\"", "\"silence\" goes with no other"},
      {"EHLO cut 5 close", "\"cut\" closes the connection itself"},
      {"EHLO cut", "\"cut\" wants a number"},
      {"EHLO drip 5", "\"drip\" wants a time"},
      {"EHLO delay 2h", "\"delay\" wants a time"},
      {"EHLO delay 3601s", "takes an hour at most"},
      {"EHLO \"x\"*16000000", "longer than 16 MiB"},
      {"EHLO \"xxxxxxxxxxxxxxxxxxxxxx\" flood 1000000", "longer than 16 MiB"},
      {"pop3 EHLO \"x\"", "EHLO does not exist in that protocol"},
  };
  for (const auto& test : cases) {
    script mine("NOOP \"4\"");
    try {
      mine.add(test.script);
      ADD_FAILURE() << test.script;
    } catch (const script_error& error) {
      EXPECT_NE(std::string(error.what()).find(test.expected), std::string::npos) << error.what();
    }
    EXPECT_EQ(mine.at(protocol::smtp, "NOOP", 1, 1).reply, "4\r\n");
  }
}

// The dots of the transfer, and lone CR and LF, in whatever slices the bytes come.
TEST(MailHost, keeps_every_byte_of_a_message_however_it_is_sliced) {
  const std::string sent = "..a\r\n.\n\r.\r\n\r\r\n\n.\r\r\n..\r\nb\r\n.\r\n";
  const std::string kept = ".a\r\n\n\r.\r\n\r\r\n\n.\r\r\n.\r\nb\r\n";
  const std::string dialogue = "EHLO x\r\nMAIL FROM:<a@b>\r\nRCPT TO:<\"c>\"@d>\r\nDATA\r\n" + sent;
  for (size_t piece = 1; piece < dialogue.size(); ++piece) {
    mail_host host;
    const auto peer = host.connect(protocol::smtp);
    for (size_t at = 0; at < dialogue.size(); at += piece) peer->talk(dialogue.substr(at, piece));
    ASSERT_EQ(host.memory.mails().size(), 1u) << piece;
    EXPECT_EQ(host.memory.mails()[0].data, kept) << piece;
    EXPECT_EQ(host.memory.mails()[0].to[0], "\"c>\"@d");
    EXPECT_EQ(host.connection().in_clear, dialogue);
  }
}

TEST(MailHost, is_strict_about_what_clients_say) {
  const struct {
    const char* client;
    const char* expected;  // how the last reply begins
  } cases[] = {
      {"MAIL FROM:<a@b>\r\n", "503"},
      {"EHLO x\r\nRCPT TO:<a@b>\r\n", "503"},
      {"EHLO x\r\nMAIL FROM:a@b\r\n", "501"},
      {"EHLO x\r\nMAIL FROM: <a@b>\r\n", "501"},
      {"EHLO x\r\nMAIL FROM:<a@b> SIZE=101\r\n", "552"},
      {"EHLO x\r\nMAIL FROM:<a@b> X=1\r\n", "555"},
      {"EHLO x\r\nMAIL FROM:<>\r\nDATA\r\n", "503"},
      {"EHLO x\r\nMAIL FROM:<>\r\nRCPT TO:<a@b>\r\nRSET\r\nDATA\r\n", "503"},
      {"EHLO x\n", "500"},
      {"AUTH PLAIN\r\n", "503"},
      {"EHLO x\r\nAUTH GSSAPI\r\n", "504"},
      {"EHLO x\r\nAUTH PLAIN !\r\n", "501"},
      {"EHLO x\r\nAUTH LOGIN\r\n*\r\n", "501"},
      {"STARTTLS\r\n", "502"},
  };
  for (const auto& test : cases) {
    settings given;
    given.size_limit = 100;
    mail_host host(given);
    const std::string replies = said(host, protocol::smtp, test.client);
    const size_t last = replies.rfind('\n', replies.size() - 2) + 1;
    EXPECT_EQ(replies.substr(last, 3), test.expected) << test.client << replies;
  }
  mail_host host;
  EXPECT_EQ(said(host, protocol::smtp, std::string(70000, 'x')),
            "500 5.5.2 the line is too long\r\n");
}

TEST(MailHost, hands_mails_out_over_pop3) {
  settings given;
  given.users["u"] = "a b";
  mail_host host(given);
  host.memory.add("id", "S: x\n\n.1\r\n2\n3");
  const std::string login = "USER u\r\nPASS a b\r\n";
  const struct {
    std::string client, expected;
  } cases[] = {
      {login + "STAT\r\n", "+OK 1 18\r\n"},
      {login + "LIST\r\n", "+OK\r\n1 18\r\n.\r\n"},
      {login + "UIDL 1\r\n", "+OK 1 id\r\n"},
      {login + "TOP 1 1\r\n", "+OK top of the message\r\nS: x\r\n\r\n..1\r\n.\r\n"},
      {login + "RETR 1\r\n", "+OK 18 octets\r\nS: x\r\n\r\n..1\r\n2\r\n3\r\n.\r\n"},
      {login + "RETR 2\r\n", "-ERR no such message\r\n"},
      {login + "RETR  1\r\n", "-ERR wrong number of arguments\r\n"},
      {login + "DELE 1\r\nLIST 1\r\n", "+OK\r\n-ERR no such message\r\n"},
      {login + "DELE 1\r\nRSET\r\nLIST 1\r\n", "+OK\r\n+OK\r\n+OK 1 18\r\n"},
      {"USER u\r\nSTAT\r\nPASS a b\r\n", "-ERR PASS comes right after USER\r\n"},
      {"PASS a b\r\n", "-ERR PASS comes right after USER\r\n"},
      {login + "DELE 1\r\nQUIT\r\n", "+OK\r\n+OK\r\n"},
      {login + "STAT\r\n", "+OK 0 0\r\n"},
  };
  for (const auto& test : cases) {
    const std::string replies = said(host, protocol::pop3, test.client);
    const size_t at = replies.size() - std::min(replies.size(), test.expected.size());
    EXPECT_EQ(replies.substr(at), test.expected) << test.client;
  }
}

TEST(MailHost, digests_are_those_of_their_documents) {
  EXPECT_EQ(hex(md5("")), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(hex(md5("1234567890123456789012345678901234567890123456789012345678901234567890"
                    "1234567890")),
            "57edf4a22be3c955ac49da2e2107b67a");
  EXPECT_EQ(hex(hmac_md5("tanstaaftanstaaf", "<1896.697170952@postoffice.reston.mci.net>")),
            "b913a602c7eda7a495b4e6e7334d3890");
  // The example of RFC 2831, of IMAP there.
  const user_map users = {{"chris", "secret"}};
  sasl_login login("DIGEST-MD5", users, {"imap", "elwood.innosoft.com", "OA6MG9tEQGm2hh"});
  EXPECT_EQ(login.proceed(std::nullopt), sasl_login::verdict::challenge);
  EXPECT_EQ(login.proceed("charset=utf-8,username=\"chris\",realm=\"elwood.innosoft.com\","
                          "nonce=\"OA6MG9tEQGm2hh\",nc=00000001,cnonce=\"OA6MHXh6VqTrRk\","
                          "digest-uri=\"imap/elwood.innosoft.com\","
                          "response=d388dad90d4bbd760a152321f2143af7,qop=auth"),
            sasl_login::verdict::challenge);
  EXPECT_EQ(login.challenge(), "rspauth=ea40f60335c427b5527b84dbabcdfffd");
  EXPECT_EQ(login.proceed(""), sasl_login::verdict::granted);
}

// Whoever watches sees neither passwords nor the text of messages.
TEST(MailHost, shows_no_secrets) {
  settings given;
  given.users["u"] = "geheim";
  mail_host host(given);
  host.memory.add("id", "S: private\r\n\r\n");
  std::string seen;
  host.on_event = [&](const event& what) { seen += what.text + "|" + what.detail + "\n"; };
  const std::string plain = to_base64(std::string("\0u\0geheim", 9)), word = to_base64("geheim");
  said(host, protocol::smtp,
       "EHLO x\r\nAUTH PLAIN " + plain + "\r\nAUTH " + plain + "\r\n" + plain + "\r\n" + word +
           " x\r\nRSET\r\nMAIL FROM:<a@b>\r\nRCPT TO:<a@b>\r\nDATA\r\nprivate\r\n.\r\n");
  said(host, protocol::smtp, "EHLO x\r\nAUTH LOGIN\r\n" + to_base64("u") + "\r\n" + word + "\r\n");
  host.script.add("pop3 PASS 2 \"+OK\"");
  said(host, protocol::pop3, "USER u\r\nPASS geheim\r\nRETR 1\r\nPASS geheim\r\n");
  said(host, protocol::pop3, "PASS geheim\r\nAPOP u geheim\r\ngeheim\r\n");
  for (const std::string& secret : {std::string("geheim"), plain, word, std::string("private")})
    EXPECT_EQ(seen.find(secret), std::string::npos) << seen;
  EXPECT_NE(seen.find("u|LOGIN"), std::string::npos) << seen;
}

}  // namespace
}  // namespace mailhost
