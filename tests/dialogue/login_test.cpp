// SMTP AUTH.

#include "dialogue_fixture.h"

namespace dialogue {
namespace {

const std::string kEhlo = "EHLO localhost\r\n";

class Login : public Dialogue {
 protected:
  Login() {
    record.auth_kind = 1;
    record.user_id = "tim";
    record.password = "tanstaaftanstaaf";
  }

  void announce(const std::string& methods) { host.capabilities({"AUTH " + methods}); }

  // The client's lines from AUTH on.
  std::string login_bytes(size_t connection = 1) const {
    const std::string bytes = host.client_bytes(connection);
    const auto at = bytes.find("AUTH");
    return at != std::string::npos ? bytes.substr(at) : "";
  }
};

TEST_F(Login, plain_sends_user_and_password) {
  announce("LOGIN PLAIN");
  host.reply_to("AUTH", 1, "235 ok\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(login_bytes(), "AUTH PLAIN AHRpbQB0YW5zdGFhZnRhbnN0YWFm\r\nQUIT\r\n");
}

TEST_F(Login, login_answers_prompts_in_whatever_order) {
  announce("LOGIN");
  host.reply_to("AUTH", 1, "334  cGFzc3dvcmQ6 \r\n");               // "password:"
  host.reply_to(smtp_host::auth_answer, 1, "334 VVNFUk5BTUU\r\n");  // "USERNAME" without its "="
  host.reply_to(smtp_host::auth_answer, 2, "235 ok\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(login_bytes(), "AUTH LOGIN\r\ndGFuc3RhYWZ0YW5zdGFhZg==\r\ndGlt\r\nQUIT\r\n");
}

// The example of RFC 2195.
TEST_F(Login, cram_md5_answers_the_challenge) {
  announce("CRAM-MD5 LOGIN");
  host.reply_to("AUTH", 1, "334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\n");
  host.reply_to(smtp_host::auth_answer, 1, "235 ok\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(login_bytes(),
            "AUTH CRAM-MD5\r\ndGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\r\nQUIT\r\n");
}

TEST_F(Login, digest_md5_answers_the_challenge_and_the_servers_proof) {
  announce("DIGEST-MD5");
  // realm="r",nonce="n",qop="auth,auth-int",algorithm=md5-sess,charset=utf-8
  host.reply_to("AUTH", 1,
                "334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgsYXV0aC1pbnQiLGFsZ29yaXRobT1tZDUtc2Vz"
                "cyxjaGFyc2V0PXV0Zi04\r\n");
  host.reply_to(smtp_host::auth_answer, 1, "334 cnNwYXV0aD0=\r\n");
  host.reply_to(smtp_host::auth_answer, 2, "235 ok\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  const std::string sent = login_bytes();
  const auto answer_at = sent.find("\r\n") + 2;
  const std::string answer = sent.substr(answer_at, sent.find("\r\n", answer_at) - answer_at);
  EXPECT_EQ(sent.substr(answer_at + answer.size()), "\r\n\r\nQUIT\r\n");
  const std::string text = from_base64(answer);
  EXPECT_EQ(
      text.find("charset=utf-8,username=\"tim\",realm=\"r\",nonce=\"n\",nc=00000001,cnonce=\""),
      0u);
  EXPECT_NE(text.find("\",digest-uri=\"smtp/mail.example\",response="), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 9), ",qop=auth");
}

TEST_F(Login, a_refused_method_is_followed_by_the_next_on_a_new_connection) {
  announce("LOGIN PLAIN CRAM-MD5");
  host.reply_to("AUTH", 1, "334 PDE+\r\n");
  host.reply_to(smtp_host::auth_answer, 1, "535 no\r\n");
  host.reply_to("AUTH", 2, "535 no\r\n");
  host.reply_to("AUTH", 3, "334 VXNlcm5hbWU6\r\n");
  host.reply_to(smtp_host::auth_answer, 2, "535 no\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_ERR_AUTH);
  ASSERT_EQ(host.connections(), 3u);
  EXPECT_EQ(login_bytes(1).substr(0, 13), "AUTH CRAM-MD5");
  EXPECT_EQ(login_bytes(2).substr(0, 10), "AUTH PLAIN");
  EXPECT_EQ(login_bytes(3).substr(0, 10), "AUTH LOGIN");
  EXPECT_EQ(log.count("Retrying auth with different method"), 2u);
  for (size_t i = 1; i <= 3; ++i) EXPECT_TRUE(host.closed_by_client(i));
}

TEST_F(Login, what_ends_a_login_at_once) {
  const struct {
    const char* methods;
    const char* auth;
    const char* answer;
    TAV_EML_RESULT expected;
  } cases[] = {
      {"PLAIN LOGIN", "454 later\r\n", "", TAV_EML_ERR_REPLY_TEMPORARY},
      {"CRAM-MD5 LOGIN", "504 no such\r\n", "", TAV_EML_ERR_REPLY},
      {"CRAM-MD5", "334 PDE+\r\n", "421 later\r\n", TAV_EML_ERR_REPLY_TEMPORARY},
      {"CRAM-MD5", "334 not base64!\r\n", "421 later\r\n", TAV_EML_ERR_REPLY_TEMPORARY},
      {"CRAM-MD5", "334 PDE+P\r\n", "421 later\r\n", TAV_EML_ERR_REPLY_TEMPORARY},
      {"CRAM-MD5", "334 PDE\r\n", "421 later\r\n", TAV_EML_ERR_REPLY_TEMPORARY},
      {"DIGEST-MD5", "334 bm9uY2U9Im4i\r\n", "", TAV_EML_ERR_AUTH_METHOD},  // no realm
      {"DIGEST-MD5", "334 cmVhbG09\r\n", "", TAV_EML_ERR_AUTH_METHOD},      // ends at "realm="
      {"DIGEST-MD5", "334 cmVhbG09InI=\r\n", "", TAV_EML_ERR_AUTH_METHOD},  // never closed
      {"LOGIN", "334 V2hvPw==\r\n", "", TAV_EML_ERR_AUTH_METHOD},           // "Who?"
      {"LOGIN", "334 Username:\r\n", "", TAV_EML_ERR_AUTH_METHOD},          // not base64
      {"LOGIN", "334 \r\n", "", TAV_EML_ERR_AUTH_METHOD},
      {"GSSAPI", "", "", TAV_EML_ERR_AUTH_METHOD},
  };
  for (const auto& test : cases) {
    smtp_host fresh;
    fresh.capabilities({std::string("AUTH ") + test.methods});
    fresh.reply_to("AUTH", 1, test.auth);
    fresh.reply_to(smtp_host::auth_answer, 1, test.answer);
    EXPECT_EQ(test_with(fresh), test.expected) << test.methods << " " << test.auth;
    EXPECT_EQ(fresh.connections(), 1u);
  }
}

TEST_F(Login, a_failed_step_is_told_by_its_own_line) {
  announce("CRAM-MD5");
  net.fail(net_call::send, 2, -1);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_TRANSFER);
  EXPECT_TRUE(log.contains("tav_eml_smtp_auth_cram_md5: SendData NG1[Error]"));
  EXPECT_FALSE(log.contains("tav_eml_smtp_auth_cram_md5: RecvOneLineinFullRcv NG[Error]"));

  announce("DIGEST-MD5");
  host.reply_to("AUTH", smtp_host::every, "334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgi\r\n");
  host.reply_to(smtp_host::auth_answer, smtp_host::every, "235 ok\r\n");
  tav_eml_smtp_boundary& object = facade();
  fake_memory memory;
  for (size_t n = 1; memory.fail(n), object.test() != TAV_EML_OK; ++n) ASSERT_LT(n, 100u);
  memory.never_fail();
  // The line is made last: after the answer and its base64.
  size_t at = 0;
  for (const char* step : {"realm == NULL", "tmp == NULL", "answer == NULL", "to_b64 NG2",
                           "to_b64 NG3", "response == NULL"}) {
    at = log.all().find(std::string("tav_eml_smtp_auth_digest_md5: ") + step + "[Error]", at);
    ASSERT_NE(at, std::string::npos) << step;
  }
  EXPECT_FALSE(log.contains("Send NG2"));
  boundary.reset();
  settings.reset();
}

TEST_F(Login, what_does_not_fit_is_refused_and_never_cut) {
  const struct {
    const char* methods;
    const char* auth;
    size_t length;
    TAV_EML_RESULT expected;
  } cases[] = {
      {"LOGIN", "334 UGFzc3dvcmQ6\r\n", 93, TAV_EML_ERR_AUTH},
      {"LOGIN", "334 UGFzc3dvcmQ6\r\n", 94, TAV_EML_ERR_PARAM},
      {"PLAIN", "535 no\r\n", 700, TAV_EML_ERR_AUTH},
      {"PLAIN", "535 no\r\n", 800, TAV_EML_ERR_PARAM},
      {"PLAIN", "535 no\r\n", 5000, TAV_EML_ERR_PARAM},
      {"DIGEST-MD5", "334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgi\r\n", 1600, TAV_EML_ERR_PARAM},
  };
  for (const auto& test : cases) {
    smtp_host fresh;
    fresh.capabilities({std::string("AUTH ") + test.methods});
    fresh.reply_to("AUTH", 1, test.auth);
    fresh.reply_to(smtp_host::auth_answer, 1, "535 no\r\n");
    record.password = std::string(test.length, 'p').c_str();
    EXPECT_EQ(test_with(fresh), test.expected) << test.methods << " " << test.length;
  }
}

TEST_F(Login, a_server_that_prompts_for_ever_is_left) {
  announce("LOGIN");
  host.reply_to("AUTH", 1, "334 VXNlcm5hbWU6\r\n");
  host.reply_to(smtp_host::auth_answer, smtp_host::every, "334 VXNlcm5hbWU6\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY);
  EXPECT_EQ(host.occurrences(smtp_host::auth_answer), 100u);
}

TEST_F(Login, methods_announced_in_clear_do_not_count_under_tls) {
  record.tlsmode = 2;
  host.capabilities({"STARTTLS", "AUTH LOGIN PLAIN"});
  host.capabilities_under_tls({"AUTH CRAM-MD5"});
  host.reply_to("AUTH", 1, "334 PDE+\r\n");
  host.reply_to(smtp_host::auth_answer, 1, "535 no\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_ERR_AUTH);
  EXPECT_EQ(host.connections(), 1u);
  EXPECT_EQ(host.client_bytes_in_clear(), kEhlo + "STARTTLS\r\n");
}

TEST_F(Login, no_user_no_login_and_no_secret_in_the_log) {
  announce("PLAIN LOGIN CRAM-MD5 DIGEST-MD5");
  host.reply_to("AUTH", smtp_host::every, "535 tanstaaftanstaaf\x1b[2J\r\n");
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY);
  EXPECT_FALSE(log.contains("tanstaaf")) << log.all();
  EXPECT_FALSE(log.contains("AUTH PLAIN "));
  boundary.reset();
  record.user_id = "";
  EXPECT_EQ(facade().test(), TAV_EML_ERR_AUTH);
  EXPECT_EQ(host.client_bytes(2), "");
  boundary.reset();
  record.auth_kind = 2;  // and no POP3 account
  EXPECT_EQ(facade().test(), TAV_EML_ERR_UNKNOWN);
  EXPECT_EQ(host.connections(), 2u);
}

TEST_F(Login, secrets_are_wiped_from_the_session) {
  announce("PLAIN");
  host.reply_to("AUTH", 1, "235 ok\r\n");
  settings = std::make_unique<tav_eml_smtp_settings>(record);
  tav_eml_smtp_command command;
  ntssmtp_fileptr* session = nullptr;
  ASSERT_EQ(command.tav_eml_smtp_connect_start(settings.get(), &session), TAV_EML_OK);
  for (const char* buffer : {session->send_buffer, session->recv_buffer}) {
    const std::string held(buffer, SMTP_BUFFER_SIZE);
    EXPECT_EQ(held.find("tanstaaf"), std::string::npos);
    EXPECT_EQ(held.find("dGFuc3RhYW"), std::string::npos);
  }
  EXPECT_STREQ(session->recv_buffer, "235 ok\r\n");
  EXPECT_EQ(command.tav_eml_smtp_disconnect(settings.get(), session), TAV_EML_OK);
  UtlOS::MemFree(session->send_buffer);
  UtlOS::MemFree(session->recv_buffer);
  UtlOS::MemFree(session);
}

}  // namespace
}  // namespace dialogue
