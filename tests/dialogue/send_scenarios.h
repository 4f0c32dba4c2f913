// send_scenarios.h - every shape of mail, every login, and the ways out of a session.

#ifndef SEND_SCENARIOS_H
#define SEND_SCENARIOS_H

#include "pop3_host.h"
#include "scenario.h"

namespace dialogue {

// A server that takes all logins, but for the method that it refuses.
class login_host : public smtp_host {
 public:
  login_host() {
    handle("AUTH", [this](const request& asked) { return begin(asked.argument); });
    handle(auth_answer, [this](const request&) { return answer(); });
  }
  std::string refused;

 private:
  std::string begin(const std::string& argument) {
    m_method = argument.substr(0, argument.find(' '));
    m_answers = 0;
    if (m_method == "PLAIN") return verdict();
    if (m_method == "CRAM-MD5") return "334 PDE+\r\n";
    if (m_method == "LOGIN") return "334 VXNlcm5hbWU6\r\n";
    return "334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgi\r\n";  // realm="r",nonce="n",qop="auth"
  }
  std::string answer() {
    ++m_answers;
    if (m_method == "LOGIN" && m_answers == 1) return "334 UGFzc3dvcmQ6\r\n";
    if (m_method == "DIGEST-MD5" && m_answers == 1) return "334 cnNwYXV0aD0=\r\n";
    return verdict();
  }
  std::string verdict() const {
    return m_method == refused ? "535 5.7.8 no\r\n" : "235 2.7.0 ok\r\n";
  }

  std::string m_method;
  int m_answers = 0;
};

enum class send_shape { text, japanese, attachment, test, new_object, abort_early, abort_in_data };

struct send_case {
  const char* name;
  send_shape shape;
  uint8_t tls;
  int32_t auth_kind;
  const char* methods;
  const char* refused = "";
};

// What the application sends, in pieces of its own.
class outgoing {
 public:
  explicit outgoing(send_shape shape) {
    fill(mail);
    mail.m_cTo = tav_eml_mlutl_mail_address("c@d.example, e@f.example");
    if (shape == send_shape::japanese || shape == send_shape::attachment) {
      mail.m_cSubject = "日本語の件名、長いもの";
      mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
      mail.m_nCharSet = TAV_EML_CS_ISO_2022_JP;
    }
    body = block_of(shape == send_shape::text ? "Hello\r\n.\r\n" : "本文です");
    if (shape != send_shape::attachment) return;
    attach(mail);
    for (void*& piece : pieces) piece = block_of("PDF!");
  }
  ~outgoing() {
    UtlOS::MemFree(body);
    for (void* piece : pieces) UtlOS::MemFree(piece);
  }
  outgoing(const outgoing&) = delete;
  outgoing& operator=(const outgoing&) = delete;

  static void hand_over(tav_eml_mlutl_mail_part& part, void*& block) {
    long length = static_cast<long>(std::strlen(static_cast<char*>(block)));
    part.set_buffer(block, length);
  }

  tav_eml_smtp_send_mail mail;
  void* body = nullptr;
  void* pieces[2] = {};
};

class sending : public scenario {
 public:
  explicit sending(const send_case& what)
      : m_case(what), m_front(host, attack), m_popFront(pop, attack) {
    net.serve(kAddress, 110, m_popFront);
    host.capabilities({"STARTTLS", std::string("AUTH ") + what.methods});
    host.refused = what.refused;
    pop.account("u", kSecret);
    pop.capabilities({"USER", "STLS"});

    _tav_eml_pop3_setting account;
    account.strServer = kServer;
    account.nPort = 110;
    account.strUserID = "u";
    account.strPassword = kSecret;
    account.nTimeout = 7;
    account.ucTLSMode = what.auth_kind == 3 ? 2 : 0;
    m_account = std::make_unique<tav_eml_pop3_settings>(account);
    _tav_eml_smtp_setting record;
    set_up(net, m_front, record, what.tls == 1 ? tls_mode::implicit : tls_mode::plain);
    record.tlsmode = what.tls;
    record.auth_kind = what.auth_kind;
    record.user_id = "u";
    record.password = kSecret;
    record.pop3_settings = m_account.get();
    m_settings = std::make_unique<tav_eml_smtp_settings>(record);
    m_boundary = std::make_unique<tav_eml_smtp_boundary>(*m_settings);
  }

  void get_ready(bool) override {
    m_delivered = host.messages().size();
    m_work = std::make_unique<outgoing>(m_case.shape);
  }
  TAV_EML_RESULT run() override {
    if (m_case.shape == send_shape::test) return m_boundary->test();
    if (m_case.shape == send_shape::new_object) return tav_eml_smtp_boundary(*m_settings).test();
    const TAV_EML_RESULT result = send();
    if (result == TAV_EML_OK && m_case.shape < send_shape::test) return result;
    const TAV_EML_RESULT aborted = m_boundary->abort_mail();
    m_boundary->close_mail();  // releases the lock of a connect that failed
    return result == TAV_EML_OK ? aborted : result;
  }
  void check(TAV_EML_RESULT result) override {
    check_order(result);
    EXPECT_FALSE(log.contains("dGFuc3RhYW")) << "base64 of the password";
    if (m_case.tls != 0) check_clear_text(host);
    if (m_case.auth_kind == 3) check_clear_text(pop);
    EXPECT_TRUE(m_case.auth_kind < 2 || attack.active || host.connections() == 0 ||
                pop.occurrences("PASS") > 0)
        << "connected without the login";
    // A mail is sent whole or not at all.
    for (const auto& message : host.messages()) {
      EXPECT_EQ(message.to.size(), 2u) << "a recipient was lost";
      EXPECT_NE(message.data.find("e@f.example\r\n"), std::string::npos) << message.data;
      EXPECT_NE(message.data.find("Message-Id: <"), std::string::npos);
      if (message.data.find("multipart") != std::string::npos) {
        EXPECT_NE(message.data.find("--BB--"), std::string::npos);
      }
    }
    if (result == TAV_EML_OK && m_case.shape < send_shape::test && is_believable()) {
      EXPECT_EQ(host.messages().size(), m_delivered + 1) << "lost in spite of success";
    }
    m_work.reset();
  }
  // A mail that the server has taken is never reported as failed.
  void check_verdict(TAV_EML_RESULT result) override {
    EXPECT_TRUE(host.messages().size() == m_delivered || result == TAV_EML_OK) << "sent twice";
  }
  void finish() override {
    m_work.reset();
    m_boundary.reset();
    m_settings.reset();
    m_account.reset();
  }

  login_host host;
  pop3_host pop;

 private:
  // False when the attacker may have said that a mail was taken.
  bool is_believable() const { return !attack.active || attack.replaced == tampering::never; }

  TAV_EML_RESULT send() {
    tav_eml_smtp_boundary& boundary = *m_boundary;
    tav_eml_smtp_send_mail& mail = m_work->mail;
    TAV_EML_RESULT result = boundary.connect_mail();
    {
      const new_failure_pause pause;
      EXPECT_TRUE(memory.any_mutex_held());
    }
    if (m_case.shape == send_shape::abort_early) return result;
    if (result == TAV_EML_OK) result = boundary.send_header(mail);
    if (result == TAV_EML_OK) {
      outgoing::hand_over(mail, m_work->body);
      result = boundary.send_body(mail);
    }
    if (result == TAV_EML_OK && mail.m_pPart != nullptr) {
      result = boundary.send_part_header(mail);
      for (void*& piece : m_work->pieces) {
        if (result != TAV_EML_OK) break;
        outgoing::hand_over(*mail.m_pPart, piece);
        result = boundary.send_part_body(mail);
      }
    }
    if (result == TAV_EML_OK && m_case.shape != send_shape::abort_in_data) {
      result = boundary.close_mail(mail);
    }
    return result;
  }

  const send_case m_case;
  tampered_host m_front, m_popFront;
  std::unique_ptr<tav_eml_pop3_settings> m_account;
  std::unique_ptr<tav_eml_smtp_settings> m_settings;
  std::unique_ptr<tav_eml_smtp_boundary> m_boundary;
  std::unique_ptr<outgoing> m_work;
  size_t m_delivered = 0;
};

inline std::vector<scenario_maker> send_scenarios() {
  static const send_case kCases[] = {
      {"text in clear", send_shape::text, 0, 0, ""},
      {"Japanese text under TLS with PLAIN", send_shape::japanese, 1, 1, "PLAIN"},
      {"attachment over STARTTLS with CRAM-MD5", send_shape::attachment, 2, 1, "CRAM-MD5"},
      {"LOGIN", send_shape::test, 2, 1, "LOGIN"},
      {"DIGEST-MD5", send_shape::test, 0, 1, "DIGEST-MD5"},
      {"a refused method, then another", send_shape::test, 0, 1, "PLAIN LOGIN", "PLAIN"},
      {"POP-before-SMTP", send_shape::test, 0, 2, ""},
      {"POP-before-SMTP over STLS, then PLAIN", send_shape::test, 2, 3, "PLAIN"},
      {"an object of its own", send_shape::new_object, 0, 0, ""},
      {"abort before the mail", send_shape::abort_early, 0, 0, ""},
      {"abort in the mail", send_shape::abort_in_data, 0, 0, ""},
  };
  std::vector<scenario_maker> makers;
  for (const send_case& what : kCases) {
    const bool is_distinct = what.shape <= send_shape::test;
    makers.push_back({what.name, [&what] { return std::make_unique<sending>(what); }, is_distinct});
  }
  return makers;
}

}  // namespace dialogue

#endif
