// Sending mail with every call that can fail failed in turn.

#include "torture.h"

namespace dialogue {
namespace {

struct world {
  world() {
    net.resolve(kServer, {kAddress});
    net.serve(kAddress, 25, host, tls);
    host.capabilities({"STARTTLS", "AUTH CRAM-MD5"});
    host.handle("AUTH", [](const smtp_host::request&) { return "334 PDE+\r\n"; });
    host.handle(smtp_host::auth_answer, [](const smtp_host::request&) { return "235 ok\r\n"; });
    record.server = kServer;
    record.port = 25;
  }

  static inline tav_test::tls_mode tls = tav_test::tls_mode::plain;
  tav_test::fake_platform net;
  tav_test::log_capture log;
  smtp_host host;
  _tav_eml_smtp_setting record;
};

// A mail and the pieces of its data, made before anything fails: that is the application's part.
struct job {
  explicit job(bool with_part) {
    fill(mail);
    mail.m_cTo = tav_eml_mlutl_mail_address("c@d.example, e@f.example");
    mail.m_cSubject = "日本語の件名、長いもの";
    mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
    mail.m_nCharSet = TAV_EML_CS_ISO_2022_JP;
    body = block("本文です");
    if (!with_part) return;
    attach(mail);
    for (void*& piece : pieces) piece = block("PDF!");
  }
  ~job() {
    UtlOS::MemFree(body);
    for (void* piece : pieces) UtlOS::MemFree(piece);
  }
  job(const job&) = delete;
  job& operator=(const job&) = delete;

  static void* block(const char* text) {
    void* made = UtlOS::MemAllocate(std::strlen(text) + 1);
    std::strcpy(static_cast<char*>(made), text);
    return made;
  }

  tav_eml_smtp_send_mail mail;
  void* body = nullptr;
  void* pieces[2] = {};
};

void hand_over(tav_eml_mlutl_mail_part& part, void*& block) {
  long length = static_cast<long>(std::strlen(static_cast<char*>(block)));
  part.set_buffer(block, length);
}

TAV_EML_RESULT send_mail(tav_eml_smtp_boundary& boundary, job& work) {
  tav_eml_smtp_send_mail& mail = work.mail;
  TAV_EML_RESULT result = boundary.connect_mail();
  if (result == TAV_EML_OK) result = boundary.send_header(mail);
  if (result == TAV_EML_OK) {
    hand_over(mail, work.body);
    result = boundary.send_body(mail);
  }
  if (result == TAV_EML_OK && mail.m_pPart != nullptr) {
    result = boundary.send_part_header(mail);
    for (void*& piece : work.pieces) {
      if (result != TAV_EML_OK) break;
      hand_over(*mail.m_pPart, piece);
      result = boundary.send_part_body(mail);
    }
  }
  if (result == TAV_EML_OK) result = boundary.close_mail(mail);
  if (result == TAV_EML_OK) return result;
  boundary.abort_mail();
  boundary.close_mail();  // releases the lock of a connect that failed
  return result;
}

struct scenario {
  const char* name;
  bool with_part;
  std::function<void(world&)> prepare;
  std::function<TAV_EML_RESULT(tav_eml_smtp_boundary&, job&)> run;
};

const scenario kScenarios[] = {
    {"text in clear", false, [](world&) {}, send_mail},
    {"attachment over STARTTLS with login", true,
     [](world& w) {
       w.record.tlsmode = 2;
       w.record.auth_kind = 1;
       w.record.user_id = "u";
       w.record.password = "p";
     },
     send_mail},
    {"test", false, [](world&) {}, [](tav_eml_smtp_boundary& b, job&) { return b.test(); }},
};

// Runs the scenario with the nth call failing; false when there were fewer calls.
bool survives(const scenario& s, fault kind, size_t n) {
  world w;
  s.prepare(w);
  const tav_eml_smtp_settings settings(w.record);
  tav_test::fake_memory memory;
  bool has_failed = false;
  {
    tav_eml_smtp_boundary boundary(settings);
    job work(s.with_part);
    job again(s.with_part);
    const auto run = [&] { return s.run(boundary, work); };
    const TAV_EML_RESULT result = run_with_fault(kind, n, memory, w.net, run, has_failed);
    EXPECT_FALSE(memory.any_mutex_held());
    // A mail is sent whole or not at all.
    for (const auto& message : w.host.messages()) {
      EXPECT_EQ(message.to.size(), 2u) << "a recipient was lost";
      EXPECT_NE(message.data.find("e@f.example\r\n"), std::string::npos) << message.data;
      EXPECT_NE(message.data.find("Message-Id: <"), std::string::npos);
      if (message.data.find("multipart") != std::string::npos) {
        EXPECT_NE(message.data.find("--BB--"), std::string::npos);
      }
    }
    EXPECT_EQ(w.net.leaks() == "", true) << w.net.leaks();
    EXPECT_EQ(s.run(boundary, again), TAV_EML_OK) << "does not work afterwards";
    EXPECT_TRUE(has_failed || result == TAV_EML_OK);
  }
  EXPECT_TRUE(memory.clean());
  EXPECT_TRUE(w.net.clean());
  return has_failed;
}

TEST(Torture, every_call_of_sending_failed_in_turn) {
  size_t points = 0;
  for (const scenario& s : kScenarios) {
    try_every_fault(
        s.name, [&](fault kind, size_t n) { return survives(s, kind, n); }, points);
    if (HasFatalFailure()) return;
  }
  std::printf("%zu points of failure tried\n", points);
}

}  // namespace
}  // namespace dialogue
