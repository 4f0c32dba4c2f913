// The practice mail server without sockets: what its clients cannot see from outside.

#include <gtest/gtest.h>

#include <string>

#include "mail_host.h"

namespace mailhost {
namespace {

// The dots of the transfer, and lone CR and LF, in whatever slices the bytes come.
TEST(MailHost, keeps_every_byte_of_a_message_however_it_is_sliced) {
  const std::string sent = "..a\r\n.\n\r.\r\n\r\r\n\n.\r\r\n..\r\nb\r\n.\r\n";
  const std::string dialogue = "EHLO x\r\nMAIL FROM:<a@b>\r\nRCPT TO:<\"c>\"@d>\r\nDATA\r\n" + sent;
  for (size_t piece = 1; piece < dialogue.size(); ++piece) {
    mail_host host;
    const auto peer = host.connect(protocol::smtp);
    peer->connected(false);
    for (size_t at = 0; at < dialogue.size(); at += piece) peer->talk(dialogue.substr(at, piece));
    ASSERT_EQ(host.memory.mails().size(), 1u) << piece;
    EXPECT_EQ(host.memory.mails()[0].data, ".a\r\n\n\r.\r\n\r\r\n\n.\r\r\n.\r\nb\r\n") << piece;
    EXPECT_EQ(host.memory.mails()[0].to[0], "\"c>\"@d");
    EXPECT_EQ(host.connection().in_clear, dialogue);
  }
}

}  // namespace
}  // namespace mailhost
