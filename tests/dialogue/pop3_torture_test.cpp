// Receiving mail with every call that can fail failed in turn.

#include "pop3_fixture.h"
#include "torture.h"

namespace dialogue {
namespace {

constexpr char kMessage[] =
    "Subject: =?utf-8?B?5pel5pys?=\r\nTo: a@b.example\r\n"
    "Content-Type: multipart/mixed; boundary=\"B\"\r\n\r\n"
    "--B\r\nContent-Type: multipart/alternative; boundary=in\r\n\r\n"
    "--in\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
    "a=3Db\r\n--in\r\nContent-Type: text/html\r\n\r\n<b>\r\n--in--\r\n"
    "--B\r\nContent-Type: application/pdf; name*=UTF-8''%E6%97%A5.pdf\r\n"
    "Content-Disposition: attachment; filename=\"=?utf-8?B?5pel?=.pdf\"\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\nJVBERi0x\r\n--B--\r\n";
const std::string kParts = "text/plain||a=b\r\n;text/html||<b>\r\n;application/pdf||%PDF-1;";
constexpr char kName[] = "日.pdf";

struct world {
  world() {
    set_up(net, host, record);
    host.capabilities({"STLS", "UIDL", "TOP"});
    refill();
  }
  void refill() {
    const auto box = std::make_shared<tav_test::pop3_mailbox>();
    host.share_mailbox(box);
    host.add("one", kMessage);
    host.add("two", "Subject: x\r\n\r\ny\r\n");
  }

  tav_test::fake_platform net;
  tav_test::log_capture log;
  pop3_host host;
  smtp_host relay;
  _tav_eml_pop3_setting record;
};

// What the application owns, made before anything fails.
struct job {
  job(tav_eml_pop3_boundary& boundary, bool all_well)
      : application(boundary), seen(1), is_all_well(all_well) {
    for (int i = 0; i < 8; ++i) {
      application.pool.push_back(std::make_unique<tav_eml_pop3_receive_mail_part>());
    }
    seen.add_mail_info(new tav_eml_pop3_mail_info(0, "gone", 1, 2), 1);
  }

  reader application;
  tav_eml_pop3_mail_info_list seen;
  bool is_all_well;
  tav_eml_pop3_mail_info info{1, "one", 100, 1};
  tav_eml_pop3_receive_mail mail{info};
  received_mail got;
};

TAV_EML_RESULT closed(tav_eml_pop3_boundary& boundary, TAV_EML_RESULT result) {
  boundary.close_mail();
  return result;
}

TAV_EML_RESULT read_first(tav_eml_pop3_boundary& boundary, job& work) {
  {
    received_mail got = work.application.read(work.mail);
    const new_failure_pause pause;
    work.got = got;
  }
  if (work.got.result != TAV_EML_OK) return work.got.result;
  const new_failure_pause pause;
  // Without memory an encoded word stays as it is and a file name is left out; nothing else may be
  // amiss when the result is good.
  if (work.is_all_well) {
    EXPECT_EQ(work.got.parts.back().name, kName);
    EXPECT_EQ(text(work.mail.m_cSubject), "日本");
  }
  for (received_part& part : work.got.parts) part.name.clear();
  EXPECT_EQ(work.got.shown(), kParts) << "lost in spite of success";
  EXPECT_EQ(text(work.mail.m_cTo.m_cAddress), "a@b.example");
  return boundary.noop();
}

TAV_EML_RESULT fetch(tav_eml_pop3_boundary& boundary, job& work) {
  TAV_EML_RESULT result = boundary.connect_mail();
  if (result == TAV_EML_OK) result = boundary.list(work.seen, 1);
  if (result == TAV_EML_OK && work.seen.search_next_mail(work.info) == 0) {
    result = TAV_EML_ERR_NO_MEMORY;
  }
  if (result == TAV_EML_OK) result = boundary.list_next(work.seen, work.info);
  if (result == TAV_EML_OK) result = read_first(boundary, work);
  if (result == TAV_EML_OK) result = boundary.delete_mail_by_uid(work.seen, work.mail);
  if (result == TAV_EML_OK) result = boundary.delete_mail(work.mail);
  return closed(boundary, result);
}

TAV_EML_RESULT header_then_skip(tav_eml_pop3_boundary& boundary, job& work) {
  TAV_EML_RESULT result = boundary.connect_mail();
  int count = 0;
  if (result == TAV_EML_OK) result = boundary.stat(count);
  if (result == TAV_EML_OK) result = boundary.receive_header(work.mail, 0);
  if (result == TAV_EML_OK) {
    work.mail.set_part(work.application.pool.back().release());
    work.application.pool.pop_back();
    result = boundary.receive_part_header(work.mail, 0);
  }
  if (result == TAV_EML_OK) result = boundary.skip_part(work.mail);
  if (result == TAV_EML_OK && boundary.skip_mail(work.mail) != TAV_EML_UTL_OK) {
    result = TAV_EML_ERR_UNKNOWN;
  }
  return closed(boundary, result);
}

struct scenario {
  const char* name;
  std::function<void(world&)> prepare;
  std::function<TAV_EML_RESULT(tav_eml_pop3_boundary&, job&)> run;
};

const scenario kScenarios[] = {
    {"list, read and delete in clear", [](world&) {}, fetch},
    {"list, read and delete with APOP over STLS",
     [](world& w) {
       w.record.nAPOP = 1;
       w.record.ucTLSMode = 2;
     },
     fetch},
    {"header only",
     [](world& w) {
       set_up(w.net, w.host, w.record, tav_test::tls_mode::implicit);
       w.record.ucTLSMode = 1;
     },
     [](tav_eml_pop3_boundary& boundary, job& work) {
       TAV_EML_RESULT result = boundary.connect_mail();
       if (result == TAV_EML_OK) result = boundary.receive_header_only(work.mail, 0);
       if (result == TAV_EML_OK) {
         const new_failure_pause pause;
         EXPECT_EQ(text(work.mail.m_cTo.m_cAddress), "a@b.example");
       }
       return closed(boundary, result);
     }},
    {"skip, behind a status line without CR",
     [](world& w) {
       w.host.reply_to("RETR", pop3_host::every, std::string("+OK\n") + kMessage + ".\r\n");
     },
     header_then_skip},
    {"test", [](world&) {}, [](tav_eml_pop3_boundary& b, job&) { return b.test(); }},
};

bool survives(const scenario& s, fault kind, size_t n) {
  world w;
  s.prepare(w);
  const tav_eml_pop3_settings settings(w.record);
  tav_test::fake_memory memory;
  bool has_failed = false;
  {
    tav_eml_pop3_boundary boundary(settings);
    TAV_EML_RESULT result = TAV_EML_OK;
    {
      job work(boundary, false);
      const auto run = [&] { return s.run(boundary, work); };
      result = run_with_fault(kind, n, memory, w.net, run, has_failed);
    }
    EXPECT_EQ(w.net.leaks(), "");
    EXPECT_TRUE(result == TAV_EML_OK ||
                (static_cast<unsigned>(result) & 0xFFFF0000U) == 0x51070000U);
    EXPECT_TRUE(has_failed || result == TAV_EML_OK) << w.log.all();
    w.refill();
    job again(boundary, true);
    EXPECT_EQ(s.run(boundary, again), TAV_EML_OK) << "does not work afterwards";
    if (testing::Test::HasFailure()) std::printf("%s", w.log.all().c_str());
  }
  EXPECT_TRUE(memory.clean());
  EXPECT_TRUE(w.net.clean());
  return has_failed;
}

TEST(Torture, every_call_of_receiving_failed_in_turn) {
  size_t points = 0;
  for (const scenario& s : kScenarios) {
    try_every_fault(
        s.name, [&](fault kind, size_t n) { return survives(s, kind, n); }, points);
    if (HasFatalFailure()) return;
  }
  std::printf("%zu points of failure tried\n", points);
}

bool survives_pop_before_smtp(fault kind, size_t n) {
  world w;
  w.net.serve(kAddress, 25, w.relay);
  tav_eml_pop3_settings account(w.record);
  _tav_eml_smtp_setting record;
  record.server = kServer;
  record.port = 25;
  record.auth_kind = 2;
  record.pop3_settings = &account;
  const tav_eml_smtp_settings settings(record);
  tav_test::fake_memory memory;
  bool has_failed = false;
  {
    tav_eml_smtp_boundary boundary(settings);
    const auto run = [&] { return boundary.test(); };
    const TAV_EML_RESULT result = run_with_fault(kind, n, memory, w.net, run, has_failed);
    EXPECT_TRUE(has_failed || result == TAV_EML_OK);
    EXPECT_TRUE(w.relay.connections() == 0 || w.host.occurrences("PASS") == 1)
        << "connected without the login";
    EXPECT_EQ(w.net.leaks(), "");
    EXPECT_FALSE(memory.any_mutex_held());
    EXPECT_EQ(run(), TAV_EML_OK) << "does not work afterwards";
  }
  EXPECT_TRUE(memory.clean());
  EXPECT_TRUE(w.net.clean());
  return has_failed;
}

TEST(Torture, every_call_of_pop_before_smtp_failed_in_turn) {
  size_t points = 0;
  try_every_fault("POP before SMTP", survives_pop_before_smtp, points);
  std::printf("%zu points of failure tried\n", points);
}

}  // namespace
}  // namespace dialogue
