// receive_scenarios.h - every shape of received mail, the list, deletion, skipping, every login.

#ifndef RECEIVE_SCENARIOS_H
#define RECEIVE_SCENARIOS_H

#include "pop3_fixture.h"
#include "scenario.h"

namespace dialogue {

constexpr char kManyParts[] =
    "Subject: =?utf-8?B?5pel5pys?=\r\nTo: a@b.example\r\n"
    "Content-Type: multipart/mixed; boundary=\"B\"\r\n\r\n"
    "--B\r\nContent-Type: multipart/alternative; boundary=in\r\n\r\n"
    "--in\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
    "a=3Db\r\n--in\r\nContent-Type: text/html\r\n\r\n<b>\r\n--in--\r\n"
    "--B\r\nContent-Type: application/pdf; name*=UTF-8''%E6%97%A5.pdf\r\n"
    "Content-Disposition: attachment; filename=\"=?utf-8?B?5pel?=.pdf\"\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\nJVBERi0x\r\n--B--\r\n";
constexpr char kOnePart[] =
    "Subject: =?utf-8?B?5pel5pys?=\r\nTo: a@b.example\r\nContent-Transfer-Encoding: base64\r\n\r\n"
    "JVBERi0x\r\n";
constexpr char kFileName[] = "日.pdf";

// What an application owns while it reads, made before anything fails.
struct incoming {
  incoming(tav_eml_pop3_boundary& boundary, const char* what, bool well, bool believable)
      : application(boundary), parts(what), is_all_well(well), is_believable(believable) {
    for (int i = 0; i < 8; ++i) {
      application.pool.push_back(std::make_unique<tav_eml_pop3_receive_mail_part>());
    }
    seen.add_mail_info(new tav_eml_pop3_mail_info(0, "gone", 1, 2), 1);
  }
  // Reads the mail and holds it against what was sent. Without memory an encoded word stays as it
  // is and a file name is left out; nothing else may be amiss when the result is good.
  TAV_EML_RESULT read() {
    received_mail got = application.read(mail);
    const new_failure_pause pause;
    if (got.result != TAV_EML_OK || !is_believable) return got.result;
    if (is_all_well) {
      EXPECT_EQ(text(mail.m_cSubject), "日本");
      EXPECT_TRUE(got.parts.size() == 1 || got.parts.back().name == kFileName);
    }
    for (received_part& part : got.parts) part.name.clear();
    EXPECT_EQ(got.shown(), parts) << "lost in spite of success";
    EXPECT_EQ(text(mail.m_cTo.m_cAddress), "a@b.example");
    return got.result;
  }
  void add_part() {
    if (application.pool.empty()) return;
    mail.set_part(application.pool.back().release());
    application.pool.pop_back();
  }

  reader application;
  const char* parts;
  bool is_all_well;
  bool is_believable;  // the server is no liar
  tav_eml_pop3_mail_info_list seen{1};
  tav_eml_pop3_mail_info info{1, "one", 100, 1};
  tav_eml_pop3_receive_mail mail{info};
};

using receive_steps = std::function<TAV_EML_RESULT(tav_eml_pop3_boundary&, incoming&)>;

struct receive_case {
  const char* name;
  const char* message;
  const char* parts;
  uint8_t tls;
  int32_t apop;
  receive_steps steps;     // of a session that is open
  bool lone_feed = false;  // the status line of RETR ends in a bare LF
};

class receiving : public scenario {
 public:
  explicit receiving(const receive_case& what) : m_case(what), m_front(host, attack) {
    _tav_eml_pop3_setting record;
    set_up(net, host, record);
    net.serve(kAddress, 110, m_front, what.tls == 1 ? tls_mode::implicit : tls_mode::plain);
    host.account("u", kSecret);
    host.expect_apop("u", "38e39b2b66e2f84e25b15063aab2141b");  // stamp and password
    host.capabilities({"STLS", "UIDL", "TOP"});
    if (what.lone_feed) {
      host.reply_to("RETR", pop3_host::every, std::string("+OK\n") + what.message + ".\r\n");
    }
    record.strPassword = kSecret;
    record.nAPOP = what.apop;
    record.ucTLSMode = what.tls;
    m_settings = std::make_unique<tav_eml_pop3_settings>(record);
    m_boundary = std::make_unique<tav_eml_pop3_boundary>(*m_settings);
  }

  void get_ready(bool all_well) override {
    const auto box = std::make_shared<pop3_mailbox>();
    host.share_mailbox(box);
    host.add("one", m_case.message);
    host.add("two", "Subject: x\r\n\r\ny\r\n");
    const bool believable = !attack.active || attack.replaced == tampering::never;
    m_work = std::make_unique<incoming>(*m_boundary, m_case.parts, all_well, believable);
  }
  TAV_EML_RESULT run() override {
    if (!m_case.steps) return tav_eml_pop3_boundary(*m_settings).test();
    TAV_EML_RESULT result = m_boundary->connect_mail();
    if (result == TAV_EML_OK) result = m_case.steps(*m_boundary, *m_work);
    m_boundary->close_mail();
    return result;
  }
  void check(TAV_EML_RESULT result) override {
    check_order(result);
    if (m_case.tls != 0) check_clear_text(host);
    m_work.reset();
  }
  void finish() override {
    m_work.reset();
    m_boundary.reset();
    m_settings.reset();
  }

  pop3_host host;

 private:
  const receive_case& m_case;
  tampered_host m_front;
  std::unique_ptr<tav_eml_pop3_settings> m_settings;
  std::unique_ptr<tav_eml_pop3_boundary> m_boundary;
  std::unique_ptr<incoming> m_work;
};

inline TAV_EML_RESULT fetch(tav_eml_pop3_boundary& boundary, incoming& work) {
  TAV_EML_RESULT result = boundary.list(work.seen, 1);
  if (result == TAV_EML_OK && work.seen.search_next_mail(work.info) == 0) {
    result = TAV_EML_ERR_NO_MEMORY;
  }
  if (result == TAV_EML_OK) result = boundary.list_next(work.seen, work.info);
  if (result == TAV_EML_OK) result = work.read();
  if (result == TAV_EML_OK) result = boundary.noop();
  if (result == TAV_EML_OK) result = boundary.delete_mail_by_uid(work.seen, work.mail);
  if (result == TAV_EML_OK) result = boundary.delete_mail(work.mail);
  return result;
}

inline TAV_EML_RESULT read_one(tav_eml_pop3_boundary& boundary, incoming& work) {
  const TAV_EML_RESULT result = work.read();
  return result == TAV_EML_OK ? boundary.noop() : result;
}

inline TAV_EML_RESULT read_header_only(tav_eml_pop3_boundary& boundary, incoming& work) {
  const TAV_EML_RESULT result = boundary.receive_header_only(work.mail, 0);
  const new_failure_pause pause;
  if (result == TAV_EML_OK && work.is_believable) {
    EXPECT_EQ(text(work.mail.m_cTo.m_cAddress), "a@b.example");
  }
  return result;
}

inline TAV_EML_RESULT skip(tav_eml_pop3_boundary& boundary, incoming& work) {
  int count = -7;
  TAV_EML_RESULT result = boundary.stat(count);
  EXPECT_EQ(count >= 0, result == TAV_EML_OK) << count;
  if (result == TAV_EML_OK) result = boundary.receive_header(work.mail, 0);
  if (result == TAV_EML_OK) {
    work.add_part();
    result = boundary.receive_part_header(work.mail, 0);
  }
  if (result == TAV_EML_OK) result = boundary.skip_part(work.mail);
  if (result == TAV_EML_OK) {
    result = tav_eml_pop3_boundary::convert_utl_retcode(boundary.skip_mail(work.mail));
  }
  return result;
}

// The application loses interest in the middle of the mail.
inline TAV_EML_RESULT leave(tav_eml_pop3_boundary& boundary, incoming& work) {
  TAV_EML_RESULT result = boundary.receive_header(work.mail, 0);
  if (result == TAV_EML_OK) result = boundary.receive_body(work.mail);
  return result;
}

inline std::vector<scenario_maker> receive_scenarios() {
  static const char kParts[] = "text/plain||a=b\r\n;text/html||<b>\r\n;application/pdf||%PDF-1;";
  static const char kBody[] = "||%PDF-1;";
  static const receive_case kCases[] = {
      {"list, read and delete in clear", kManyParts, kParts, 0, 0, fetch},
      {"list, read and delete with APOP over STLS", kManyParts, kParts, 2, 1, fetch},
      {"a mail of one part over STLS", kOnePart, kBody, 2, 0, read_one},
      {"header only under TLS", kManyParts, kParts, 1, 0, read_header_only},
      {"skip, behind a status line without CR", kManyParts, kParts, 0, 0, skip, true},
      {"left in the middle", kOnePart, kBody, 0, 0, leave},
      {"test with APOP", kOnePart, kBody, 0, 1, [](auto&, auto&) { return TAV_EML_OK; }},
      {"an object of its own", kOnePart, kBody, 0, 0, nullptr},
  };
  std::vector<scenario_maker> makers;
  for (const receive_case& what : kCases) {
    const bool is_distinct = what.steps != nullptr;
    makers.push_back(
        {what.name, [&what] { return std::make_unique<receiving>(what); }, is_distinct});
  }
  return makers;
}

}  // namespace dialogue

#endif
