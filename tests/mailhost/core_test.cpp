// The practice mail server without sockets: what its clients cannot see from outside.

#include <gtest/gtest.h>

#include <string>

#include "mail_host.h"
#include "text.h"

namespace mailhost {
namespace {

void say(mail_host& host, protocol speaks, const std::string& bytes, size_t piece = 9999) {
  const auto peer = host.connect(speaks);
  peer->connected(false);
  for (size_t at = 0; at < bytes.size(); at += piece) peer->talk(bytes.substr(at, piece));
}

// The dots of the transfer, and lone CR and LF, in whatever slices the bytes come.
TEST(MailHost, keeps_every_byte_of_a_message_however_it_is_sliced) {
  const std::string sent = "..a\r\n.\n\r.\r\n\r\r\n\n.\r\r\n..\r\nb\r\n.\r\n";
  const std::string dialogue = "EHLO x\r\nMAIL FROM:<a@b>\r\nRCPT TO:<\"c>\"@d>\r\nDATA\r\n" + sent;
  for (size_t piece = 1; piece < dialogue.size(); ++piece) {
    mail_host host;
    say(host, protocol::smtp, dialogue, piece);
    ASSERT_EQ(host.memory.mails().size(), 1u) << piece;
    EXPECT_EQ(host.memory.mails()[0].data, ".a\r\n\n\r.\r\n\r\r\n\n.\r\r\n.\r\nb\r\n") << piece;
    EXPECT_EQ(host.memory.mails()[0].to[0], "\"c>\"@d");
    EXPECT_EQ(host.connection().in_clear, dialogue);
  }
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
  say(host, protocol::smtp,
      "EHLO x\r\nAUTH PLAIN " + plain + "\r\nAUTH " + plain + "\r\n" + plain + "\r\n" + word +
          " x\r\nRSET\r\nMAIL FROM:<a@b>\r\nRCPT TO:<a@b>\r\nDATA\r\nprivate\r\n.\r\n");
  say(host, protocol::smtp, "EHLO x\r\nAUTH LOGIN\r\n" + to_base64("u") + "\r\n" + word + "\r\n");
  host.script.add("pop3 PASS 2 \"+OK\"");
  say(host, protocol::pop3, "USER u\r\nPASS geheim\r\nRETR 1\r\nPASS geheim\r\n");
  say(host, protocol::pop3, "PASS geheim\r\nAPOP u geheim\r\ngeheim\r\n");
  for (const std::string& secret : {std::string("geheim"), plain, word, std::string("private")})
    EXPECT_EQ(seen.find(secret), std::string::npos) << seen;
  EXPECT_NE(seen.find("u|LOGIN"), std::string::npos) << seen;
}

}  // namespace
}  // namespace mailhost
