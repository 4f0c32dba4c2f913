// Many threads at once, over the Linux port and real sockets of the loopback interface.

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include "server.h"
#include "text.h"
#include "values.h"

namespace {

using namespace quorvelmida;

constexpr int kRounds = 15;

void run_at_once(const std::function<void(int)>& work) {
  std::vector<std::thread> all;
  for (int i = 0; i < 8; ++i) all.emplace_back(work, i);
  for (std::thread& each : all) each.join();
}

// The practice mail server in a thread of its own, and the settings to reach it.
struct served_host {
  explicit served_host(bool is_tls)
      : port(doors.listen("127.0.0.1", 0, mailhost::protocol::smtp, is_tls)),
        thread([this] { doors.run(stop.get(), mailhost::connection::clock::time_point::max()); }) {}
  void end() {
    eventfd_write(stop.get(), 1);
    thread.join();
  }
  tav_eml_smtp_settings settings(const char* name, bool is_tls) const {
    _tav_eml_smtp_setting record = easy::smtp_account(name, port, "", "");
    record.tlsmode = is_tls ? 1 : 0;
    return record;
  }

  const mailhost::identity own =
      mailhost::make_identity({"localhost"}, mailhost::certificate_fault::none);
  const mailhost::tls_context tls{own};
  mailhost::mail_host host;
  mailhost::server doors{host, tls, {}};
  const mailhost::file_descriptor stop{eventfd(0, EFD_CLOEXEC)};
  const uint16_t port;
  std::thread thread;
};

// Pieces that leave base64 groups open.
std::string piece_of(const std::string& name) { return "日本 " + name + "語 "; }

void send_mail(tav_eml_smtp_boundary& boundary, const std::string& name, bool is_given_up) {
  tav_eml_smtp_send_mail mail;
  mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_nCharSet = TAV_EML_CS_UTF_8;
  mail.m_cFrom = mail.m_cTo = tav_eml_mlutl_mail_address("a@b.example");
  mail.m_cSubject = name.c_str();
  mail.m_cDate = "Sat, 21 Nov 2026 10:00:00 +0900";
  mail.set_message_id("1@b");
  EXPECT_EQ(boundary.send_header(mail), TAV_EML_OK);
  for (int i = 0; i < 5; ++i) {
    if (is_given_up && i == 2) return void(boundary.abort_mail());
    tav_test::give(mail, piece_of(name));
    EXPECT_EQ(boundary.send_body(mail), TAV_EML_OK);
  }
  EXPECT_EQ(boundary.close_mail(mail), TAV_EML_OK);
}

// The subject of a mail whose body is whole.
std::string subject_of(const std::string& mail) {
  const size_t at = mail.find("Subject: ") + 9;
  const std::string name = mail.substr(at, mail.find('\r', at) - at);
  std::string body = mail.substr(mail.find("\r\n\r\n"));
  for (size_t i; (i = body.find("\r\n")) != std::string::npos;) body.erase(i, 2);
  std::string sent;
  for (int i = 0; i < 5; ++i) sent += piece_of(name);
  EXPECT_EQ(mailhost::from_base64(body), sent);
  return name;
}

// Sends, gives up and tests in turn: with one object for all threads, or one for each.
TEST(Threads, send_one_mail_after_the_other_or_do_not_disturb_each_other) {
  for (const bool is_shared : {true, false}) {
    served_host crowded(false);
    const tav_eml_smtp_settings settings = crowded.settings("127.0.0.1", false);
    tav_eml_smtp_boundary shared(settings);
    int inside = 0;  // nothing protects it but the lock of the shared object
    run_at_once([&](int thread) {
      tav_eml_smtp_boundary own(settings);
      tav_eml_smtp_boundary& boundary = is_shared ? shared : own;
      for (int round = 0; round < kRounds; ++round) {
        if (round % 5 == 3) {
          EXPECT_EQ(boundary.test(), TAV_EML_OK);
          continue;
        }
        EXPECT_EQ(boundary.connect_mail(), TAV_EML_OK);
        EXPECT_EQ(is_shared ? ++inside : 1, 1);
        std::this_thread::yield();
        if (is_shared) --inside;
        send_mail(boundary, std::to_string(thread * kRounds + round), round % 5 == 4);
      }
    });
    crowded.end();
    std::set<std::string> subjects;
    for (const mailhost::mail& each : crowded.host.memory.mails())
      EXPECT_TRUE(subjects.insert(subject_of(each.data)).second) << "came twice";
    EXPECT_EQ(subjects.size(), 8u * kRounds * 3 / 5);
    EXPECT_EQ(crowded.host.connections(), 8u * kRounds);
  }
}

// The port remembers which name a thread resolved, and TLS checks the certificate for it.
TEST(Threads, resolve_names_at_the_same_time_and_each_checks_its_own) {
  served_host host(true);
  const std::string authority = testing::TempDir() + "lock_test." + std::to_string(getpid());
  std::ofstream(authority) << mailhost::to_pem(host.own.authority.get());
  setenv("SSL_CERT_FILE", authority.c_str(), 1);
  run_at_once([&host](int thread) {
    const bool is_good = thread % 2 == 0;
    const auto settings = host.settings(is_good ? "localhost" : "127.0.0.1", true);
    for (int round = 0; round < kRounds; ++round) {
      EXPECT_EQ(tav_eml_smtp_boundary(settings).test(),
                is_good ? TAV_EML_OK : TAV_EML_ERR_TLS_CONNECT_REFUSED);
    }
  });
  host.end();
  std::remove(authority.c_str());
}

}  // namespace
