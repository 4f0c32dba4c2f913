// Sending to servers that mean harm.

#include "hostile.h"
#include "send_scenarios.h"

namespace dialogue {
namespace {

TEST(HostileSmtp, silence_and_the_end_at_every_byte) { cut_everywhere(send_scenarios()); }
TEST(HostileSmtp, slow_peers) { drip_and_choke(send_scenarios()); }
TEST(HostileSmtp, wrong_replies) { wrong_words(send_scenarios()); }
TEST(HostileSmtp, endless_replies) { endless_words(send_scenarios()); }
TEST(HostileSmtp, replies_at_random) { drunken(send_scenarios(), 100); }

TEST_F(Dialogue, bytes_behind_starttls_are_never_taken_for_replies_under_tls) {
  record.tlsmode = 2;
  record.auth_kind = 1;
  record.user_id = "u";
  record.password = kSecret;
  for (const char* injected : {"2", "\r\n", "250 x\r\n",
                               "220 x\r\n250-x\r\n250 AUTH PLAIN\r\n235 x\r\n", "\x16\x03\x03"}) {
    for (const bool is_continued : {false, true}) {
      login_host fresh;
      fresh.capabilities({"STARTTLS", "AUTH PLAIN"});
      fresh.reply_to(
          "STARTTLS", 1,
          (is_continued ? "220-go\r\n220 on\r\n" : "220 go\r\n") + std::string(injected));
      EXPECT_EQ(test_with(fresh), TAV_EML_ERR_TLS_CONNECT) << injected;
      EXPECT_EQ(fresh.client_bytes(), "EHLO localhost\r\nSTARTTLS\r\n");
      EXPECT_EQ(facade().test(), TAV_EML_OK);  // the second time nothing is injected
    }
  }
}

TEST_F(Dialogue, what_only_one_side_of_tls_announces_counts_there_only) {
  const struct {
    std::vector<std::string> before, after;
    TAV_EML_RESULT expected;
    const char* clear;
    const char* login;  // how the client's lines under TLS go on behind EHLO
  } cases[] = {
      {{"STARTTLS", "AUTH PLAIN LOGIN CRAM-MD5 DIGEST-MD5"},
       {},
       TAV_EML_ERR_AUTH_METHOD,
       "EHLO localhost\r\nSTARTTLS\r\n",
       ""},
      {{"STARTTLS", "AUTH PLAIN"},
       {"AUTH CRAM-MD5"},
       TAV_EML_OK,
       "EHLO localhost\r\nSTARTTLS\r\n",
       "AUTH CRAM-MD5\r\n"},
      {{"STARTTLS"},
       {"STARTTLS", "AUTH PLAIN"},
       TAV_EML_OK,
       "EHLO localhost\r\nSTARTTLS\r\n",
       "AUTH PLAIN"},
      {{"AUTH PLAIN"}, {"STARTTLS", "AUTH PLAIN"}, TAV_EML_ERR_REPLY, "EHLO localhost\r\n", ""},
      {{"X-STARTTLS", "NOSTARTTLS"}, {}, TAV_EML_ERR_REPLY, "EHLO localhost\r\n", ""},
  };
  record.tlsmode = 2;
  record.auth_kind = 1;
  record.user_id = "u";
  record.password = kSecret;
  for (const auto& test : cases) {
    login_host fresh;
    fresh.capabilities(test.before);
    fresh.capabilities_under_tls(test.after);
    EXPECT_EQ(test_with(fresh), test.expected);
    EXPECT_EQ(fresh.client_bytes_in_clear(), test.clear);
    const std::string under_tls = fresh.client_bytes_under_tls();
    EXPECT_EQ(under_tls.find("AUTH") != std::string::npos, *test.login != '\0') << under_tls;
    EXPECT_NE(under_tls.find(test.login), std::string::npos) << under_tls;
  }
}

}  // namespace
}  // namespace dialogue
