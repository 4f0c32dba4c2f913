// Opening and closing a session.

#include <chrono>
#include <future>

#include "dialogue_fixture.h"

namespace dialogue {
namespace {

constexpr char kQuit[] = "QUIT\r\n";
const std::string kGreeted = "EHLO localhost\r\n";

TEST_F(Dialogue, greets_and_says_goodbye) {
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), kGreeted + kQuit);
  EXPECT_EQ(net.timeouts(net_call::recv), std::set<int64_t>{7000});
  EXPECT_TRUE(host.closed_by_client());
}

TEST_F(Dialogue, judges_the_greeting_by_its_first_character_and_reads_all_of_it) {
  const struct {
    const char* greeting;
    TAV_EML_RESULT expected;
  } cases[] = {
      {"220-one\r\n220 two\r\n", TAV_EML_OK},
      {"220-one\r\n22\r\n220 two\r\n", TAV_EML_OK},
      {"421 busy\r\n", TAV_EML_ERR_REPLY_TEMPORARY},
      {"554 no\r\n", TAV_EML_ERR_REPLY},
      {"xxx yes\r\n", TAV_EML_ERR_REPLY},
      {"220\r\n", TAV_EML_ERR_TRANSFER_TIMEOUT},
  };
  for (const auto& test : cases) {
    smtp_host fresh;
    fresh.reply_to(smtp_host::greeting, 1, test.greeting);
    EXPECT_EQ(test_with(fresh), test.expected) << test.greeting;
    EXPECT_EQ(fresh.client_bytes(), test.expected == TAV_EML_OK ? kGreeted + kQuit : "");
  }
}

TEST_F(Dialogue, a_server_that_closes_or_falls_silent_ends_the_session) {
  host.close_at(smtp_host::greeting, 1);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY);
  host.silence_at("EHLO", 1);
  host.silence_at("HELO", 1);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_TRANSFER_TIMEOUT);
  net.connect_result(kAddress, 25, -1);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_CONNECT);
}

TEST_F(Dialogue, a_refused_ehlo_is_read_to_its_end_before_helo) {
  host.reply_to("EHLO", 1, "502-never\r\n502-heard\r\n502 of it\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), kGreeted + "HELO localhost\r\n" + kQuit);
  host.reply_to("EHLO", 2, "502 no\r\n");
  host.reply_to("HELO", 2, "421 no\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY_TEMPORARY);
  EXPECT_EQ(host.client_bytes(2), kGreeted + "HELO localhost\r\n");
}

TEST_F(Dialogue, a_refusal_of_ehlo_counts_also_when_its_rest_does_not_come) {
  record.auth_kind = 1;  // no HELO then
  record.user_id = "tim";
  const struct {
    const char* reply;
    TAV_EML_RESULT expected;
  } cases[] = {
      {"502-no\r\n", TAV_EML_ERR_REPLY},
      {"421-later\r\n502", TAV_EML_ERR_REPLY_TEMPORARY},
      {"250-host\r\n500\r\n", TAV_EML_ERR_REPLY},
      {"250-host\r\n500-no\r\n500\r\n", TAV_EML_ERR_REPLY},
      {"250-host\r\n", TAV_EML_ERR_TRANSFER_TIMEOUT},
  };
  for (const auto& test : cases) {
    smtp_host fresh;
    fresh.reply_to("EHLO", 1, test.reply);
    EXPECT_EQ(test_with(fresh), test.expected) << test.reply;
  }
}

TEST_F(Dialogue, a_line_longer_than_the_buffer_is_no_two_lines) {
  host.reply_to("EHLO", 1, "250-" + std::string(1019, 'x') + "250 STARTTLS\r\n250 end\r\n");
  host.reply_to("QUIT", 1, "221-" + std::string(3000, 'y') + "\r\n221 end\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), kGreeted + kQuit);
  // A CR at the cut and its LF behind it.
  host.reply_to("EHLO", 2, "250-" + std::string(1018, 'x') + "\r\n250 end\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_OK);
}

TEST_F(Dialogue, endless_replies_end) {
  std::string lines;
  for (int i = 0; i < 1001; ++i) lines += "220-more\r\n";
  host.reply_to(smtp_host::greeting, 1, lines);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY);
  host.reply_to(smtp_host::greeting, 2, "220 " + std::string(70000, 'x'));
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY);
  EXPECT_TRUE(log.contains("more than 1000 lines"));
}

TEST_F(Dialogue, takes_the_capabilities_that_are_announced) {
  const struct {
    const char* reply;
    smtp_ehlo_option expected;
  } cases[] = {
      {"250-host\r\n250-AUTH LOGIN PLAIN\r\n250 STARTTLS\r\n", {0, 0, 1, 1, 1}},
      {"250-host\r\n250-AUTH=CRAM-MD5 DIGEST-MD5\r\n250 x\r\n", {1, 1, 0, 0, 0}},
      {"250-host\r\n250-AUTH PLAIN\r\n250 AUTH=LOGIN\r\n", {0, 0, 0, 1, 0}},
      {"250-host\r\n250-auth PLAIN\r\n250 starttls\r\n", {0, 0, 1, 0, 1}},
      {"250-host\r\n250-AUTH\r\n250 A\r\n", {0, 0, 0, 0, 0}},
      {"250-\r\n25\r\n250 \r\n", {0, 0, 0, 0, 0}},
  };
  tav_eml_smtp_command command;
  for (const auto& test : cases) {
    smtp_host fresh;
    fresh.reply_to("EHLO", 1, test.reply);
    net.serve(kAddress, 25, fresh);
    settings = std::make_unique<tav_eml_smtp_settings>(record);
    ntssmtp_fileptr* session = nullptr;
    ASSERT_EQ(command.tav_eml_smtp_connect_only(settings.get(), &session), TAV_EML_OK);
    EXPECT_STREQ(session->recv_buffer, "220 mail.example ESMTP\r\n");
    smtp_ehlo_option option = {};
    EXPECT_EQ(command.SendEhloCommand(settings.get(), session, option), TAV_EML_OK);
    EXPECT_EQ(std::memcmp(&option, &test.expected, sizeof option), 0) << test.reply;
    EXPECT_EQ(command.tav_eml_smtp_disconnect(settings.get(), session), TAV_EML_OK);
    EXPECT_EQ(session->sock, 0);
    UtlOS::MemFree(session->send_buffer);
    UtlOS::MemFree(session->recv_buffer);
    UtlOS::MemFree(session);
  }
}

TEST_F(Dialogue, what_cannot_be_sent_is_refused_before_anything_is) {
  const auto refused = [&](auto&& change) {
    const _tav_eml_smtp_setting kept = record;
    change();
    EXPECT_EQ(facade().test(), TAV_EML_ERR_PARAM);
    boundary.reset();
    record = kept;
  };
  refused([&] { record.server = ""; });
  refused([&] { record.server = static_cast<const char*>(nullptr); });
  refused([&] { record.tlsmode = 3; });
  refused([&] { record.helo_domain = "a\r\nMAIL FROM:<x@y>"; });
  refused([&] { record.helo_domain = std::string(1017, 'x').c_str(); });
  EXPECT_EQ(host.connections(), 0u);
  record.helo_domain = std::string(1016, 'x').c_str();
  EXPECT_EQ(facade().test(), TAV_EML_OK);
}

TEST_F(Dialogue, starttls_protects_everything_behind_it) {
  record.tlsmode = 2;
  host.capabilities({"STARTTLS", "AUTH PLAIN"});
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes_in_clear(), kGreeted + "STARTTLS\r\n");
  EXPECT_EQ(host.client_bytes_under_tls(), kGreeted + kQuit);
}

TEST_F(Dialogue, starttls_that_does_not_come_about_sends_nothing_in_clear) {
  record.tlsmode = 2;
  const struct {
    const char* reply;
    TAV_EML_RESULT expected;
  } cases[] = {
      {"454 not now\r\n", TAV_EML_ERR_REPLY},
      {"220 go\r\n250 injected\r\n", TAV_EML_ERR_TLS_CONNECT},
      {"220-go\r\n220 on\r\n", TAV_EML_OK},
  };
  for (const auto& test : cases) {
    smtp_host fresh;
    fresh.capabilities({"STARTTLS"});
    fresh.reply_to("STARTTLS", 1, test.reply);
    EXPECT_EQ(test_with(fresh), test.expected) << test.reply;
    EXPECT_EQ(fresh.client_bytes_in_clear(), kGreeted + "STARTTLS\r\n");
  }
  EXPECT_EQ(log.count("tav_eml_smtp_command::tav_eml_smtp_start_tls returns [0x"), 2u);
  net.serve(kAddress, 25, host);  // announces nothing
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY);
  EXPECT_TRUE(log.contains("SMTP STARTTLS IS NOT SUPPORTED[Error]"));
  EXPECT_EQ(host.client_bytes(), kGreeted);
}

TEST_F(Dialogue, implicit_tls_begins_with_the_first_byte) {
  record.tlsmode = 1;
  net.serve(kAddress, 25, host, tls_mode::implicit);
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes_in_clear(), "");
  EXPECT_EQ(host.client_bytes_under_tls(), kGreeted + kQuit);
  net.fail(net_call::tls_connect, 2, 0x7201001D);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_TLS_CONNECT_REFUSED);
}

TEST_F(Dialogue, a_command_goes_out_whole_however_little_a_call_moves) {
  net.send_limit(1);
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), kGreeted + kQuit);
  net.send_limit(0);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_TRANSFER);
}

TEST_F(Dialogue, an_abort_ends_the_session_according_to_its_state) {
  tav_eml_smtp_send_mail mail;
  fill(mail);
  EXPECT_EQ(facade().abort_mail(), TAV_EML_OK);  // no session yet

  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_EQ(facade().abort_mail(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(1), kGreeted + kQuit);
  EXPECT_EQ(facade().abort_mail(), TAV_EML_OK);  // already ended

  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  ASSERT_EQ(facade().send_header(mail), TAV_EML_OK);
  EXPECT_EQ(facade().abort_mail(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(2).find("QUIT"), std::string::npos);
  EXPECT_TRUE(host.closed_by_client(2));
  EXPECT_EQ(host.messages().size(), 0u);

  // QUIT that cannot be sent: the connection is closed all the same.
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  net.fail_from(net_call::send, 1, -1);
  EXPECT_EQ(facade().abort_mail(), TAV_EML_ERR_TRANSFER);
  net.never_fail();
  EXPECT_EQ(net.leaks(), "");
}

TEST_F(Dialogue, a_session_left_open_is_closed_by_the_next_connect_and_by_the_end) {
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_TRUE(host.closed_by_client(1));
  EXPECT_EQ(host.client_bytes(1), kGreeted);
  boundary.reset();
  EXPECT_TRUE(host.closed_by_client(2));
}

TEST_F(Dialogue, the_lock_is_held_from_connect_to_close) {
  fake_memory memory;
  tav_eml_smtp_boundary& object = facade();
  ASSERT_EQ(object.connect_mail(), TAV_EML_OK);
  EXPECT_TRUE(memory.any_mutex_held());
  auto waiting = std::async(std::launch::async, [&] { return object.test(); });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(object.close_mail(), TAV_EML_OK);
  EXPECT_EQ(waiting.get(), TAV_EML_OK);
  EXPECT_FALSE(memory.any_mutex_held());

  // A failed connect keeps it; the same thread may try again, or release it.
  net.connect_result(kAddress, 25, -1);
  EXPECT_EQ(object.connect_mail(), TAV_EML_ERR_CONNECT);
  EXPECT_TRUE(memory.any_mutex_held());
  EXPECT_EQ(object.abort_mail(), TAV_EML_OK);
  EXPECT_TRUE(memory.any_mutex_held());
  EXPECT_EQ(object.connect_mail(), TAV_EML_ERR_CONNECT);
  EXPECT_EQ(object.close_mail(), TAV_EML_ERR_UNKNOWN);
  EXPECT_FALSE(memory.any_mutex_held());
  EXPECT_EQ(object.test(), TAV_EML_ERR_CONNECT);
  EXPECT_FALSE(memory.any_mutex_held());
  boundary.reset();
  settings.reset();
}

}  // namespace
}  // namespace dialogue
