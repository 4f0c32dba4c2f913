// Many threads at once, over the Linux port and real sockets of the loopback interface.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "loopback_server.h"
#include "smtp_host.h"
#include "test_certificates.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using tav_test::loopback_server;
using tav_test::smtp_host;

constexpr size_t kThreads = 8;
constexpr size_t kRounds = 15;

void run_at_once(size_t threads, const std::function<void(size_t)>& work) {
  std::atomic<size_t> missing{threads};
  std::vector<std::thread> all;
  for (size_t i = 0; i < threads; ++i) {
    all.emplace_back([&, i] {
      for (--missing; missing != 0;) std::this_thread::yield();
      work(i);
    });
  }
  for (std::thread& each : all) each.join();
}

_tav_eml_smtp_setting setting_for(uint16_t port) {
  _tav_eml_smtp_setting record;
  record.server = "127.0.0.1";
  record.port = port;
  record.timeout = 30;
  return record;
}

void fill(tav_eml_smtp_send_mail& mail, const std::string& subject) {
  mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_nCharSet = TAV_EML_CS_ISO_2022_JP;
  mail.m_cFrom = tav_eml_mlutl_mail_address("a@b.example");
  mail.m_cTo = tav_eml_mlutl_mail_address("c@d.example");
  mail.m_cSubject = subject.c_str();
  mail.m_cDate = "Sat, 21 Nov 2026 10:00:00 +0900";
  mail.set_message_id("1@b");
}

// The body of a mail: its name again and again, with Japanese around it, in pieces that leave
// base64 groups open.
constexpr size_t kPieces = 5;
std::string piece_of(const std::string& name) { return "\u65e5\u672c " + name + "\u8a9e "; }

// Sends a mail on an open session and ends that; with fewer pieces than a whole mail it aborts.
TAV_EML_RESULT send_mail(tav_eml_smtp_boundary& boundary, const std::string& name,
                         size_t pieces = kPieces) {
  tav_eml_smtp_send_mail mail;
  fill(mail, name);
  TAV_EML_RESULT result = boundary.send_header(mail);
  for (size_t i = 0; result == TAV_EML_OK && i < pieces; ++i) {
    tav_test::give(mail, piece_of(name));
    result = boundary.send_body(mail);
  }
  if (result != TAV_EML_OK || pieces < kPieces) {
    boundary.abort_mail();
    return result;
  }
  return boundary.close_mail(mail);
}

std::string name_of(size_t thread, size_t round) {
  return "mail-" + std::to_string(thread) + "-" + std::to_string(round);
}

// The mails that arrived, by subject. Each must be exactly what one thread alone sends.
std::set<std::string> whole_mails(const smtp_host& host) {
  smtp_host quiet;
  loopback_server server;
  const tav_eml_smtp_settings settings(setting_for(server.listen(quiet)));
  server.start();
  std::set<std::string> names;
  for (const tav_test::smtp_message& message : host.messages()) {
    const size_t at = message.data.find("Subject: ") + std::strlen("Subject: ");
    const std::string name = message.data.substr(at, message.data.find('\r', at) - at);
    EXPECT_TRUE(names.insert(name).second) << name << " came twice";
    tav_eml_smtp_boundary alone(settings);
    EXPECT_EQ(alone.connect_mail(), TAV_EML_OK);
    EXPECT_EQ(send_mail(alone, name), TAV_EML_OK);
  }
  server.stop();
  EXPECT_EQ(quiet.messages().size(), host.messages().size());
  for (size_t i = 0; i < quiet.messages().size() && i < host.messages().size(); ++i)
    EXPECT_EQ(host.messages()[i].data, quiet.messages()[i].data);
  return names;
}

TEST(Lock, threads_that_share_an_object_send_one_mail_after_the_other) {
  smtp_host host;
  loopback_server server;
  const tav_eml_smtp_settings settings(setting_for(server.listen(host)));
  server.start();
  tav_eml_smtp_boundary shared(settings);
  int inside = 0;  // nothing protects it but the lock of the object
  std::atomic<size_t> sent{0};
  run_at_once(kThreads, [&](size_t thread) {
    for (size_t round = 0; round < kRounds; ++round) {
      if (round % 5 == 3) {
        EXPECT_EQ(shared.test(), TAV_EML_OK);
        continue;
      }
      EXPECT_EQ(shared.connect_mail(), TAV_EML_OK);
      EXPECT_EQ(++inside, 1);
      std::this_thread::yield();
      --inside;
      const bool is_aborted = round % 5 == 4;
      EXPECT_EQ(send_mail(shared, name_of(thread, round), is_aborted ? 2 : kPieces), TAV_EML_OK);
      if (!is_aborted) ++sent;
    }
  });
  server.stop();
  EXPECT_EQ(inside, 0);
  EXPECT_EQ(host.connections(), kThreads * kRounds);
  EXPECT_EQ(whole_mails(host).size(), sent);
}

TEST(Threads, objects_of_their_own_do_not_disturb_each_other) {
  smtp_host host;
  loopback_server server;
  const uint16_t port = server.listen(host);
  server.start();
  run_at_once(kThreads, [port](size_t thread) {
    const tav_eml_smtp_settings settings(setting_for(port));
    tav_eml_smtp_boundary own(settings);
    for (size_t round = 0; round < kRounds; ++round) {
      EXPECT_EQ(own.connect_mail(), TAV_EML_OK);
      EXPECT_EQ(send_mail(own, name_of(thread, round)), TAV_EML_OK);
    }
  });
  server.stop();
  EXPECT_EQ(whole_mails(host).size(), kThreads * kRounds);
}

// The port remembers which name a thread resolved, and TLS checks the certificate for it.
TEST(Threads, resolve_names_at_the_same_time_and_each_checks_its_own) {
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("lock_test-" + std::to_string(getpid()));
  std::filesystem::create_directories(folder);
  const auto files = tav_test::make_certificates(folder, {"localhost"});
  setenv("SSL_CERT_FILE", files.ca.c_str(), 1);
  setenv("SSL_CERT_DIR", "/dev/null", 1);
  smtp_host host;
  loopback_server server(files);
  const uint16_t port = server.listen(host, tav_test::tls_mode::implicit);
  server.start();
  run_at_once(kThreads, [port](size_t thread) {
    const bool is_good = thread % 2 == 0;
    _tav_eml_smtp_setting record = setting_for(port);
    record.server = is_good ? "localhost" : "127.0.0.1";
    record.tlsmode = 1;
    record.tls_opt[0] = 1;
    const tav_eml_smtp_settings settings(record);
    for (size_t round = 0; round < kRounds; ++round) {
      const TAV_EML_RESULT result = tav_eml_smtp_boundary(settings).test();
      EXPECT_EQ(result, is_good ? TAV_EML_OK : TAV_EML_ERR_TLS_CONNECT_REFUSED);
    }
  });
  server.stop();
  std::filesystem::remove_all(folder);
}

}  // namespace
