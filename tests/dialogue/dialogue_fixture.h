// dialogue_fixture.h - the library, a scripted SMTP host and a mail to send.

#ifndef DIALOGUE_FIXTURE_H
#define DIALOGUE_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "fake_memory.h"
#include "fake_platform.h"
#include "log_capture.h"
#include "smtp_host.h"
#include "values.h"

namespace dialogue {

using namespace quorvelmida;
using namespace tav_test;

constexpr char kServer[] = "mail.example";
constexpr char kAddress[] = "192.0.2.1";

// A short mail of text.
inline void fill(tav_eml_smtp_send_mail& mail) {
  mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.m_nTransferEncoding = TAV_EML_TE_7BIT;
  mail.m_nCharSet = TAV_EML_CS_UTF_8;
  mail.m_cFrom = tav_eml_mlutl_mail_address("a@b.example");
  mail.m_cTo = tav_eml_mlutl_mail_address("c@d.example");
  mail.m_cSubject = "Hi";
  mail.m_cDate = "Sat, 21 Nov 2026 10:00:00 +0900";
  mail.set_message_id("1@b");
}

constexpr char kHeader[] =
    "Date: Sat, 21 Nov 2026 10:00:00 +0900\r\n"
    "From: a@b.example\r\n"
    "Subject: Hi\r\n"
    "To: c@d.example\r\n"
    "Message-Id: <1@b>\r\n"
    "Mime-Version: 1.0\r\n"
    "Content-Type: text/plain; charset=\"utf-8\"\r\n"
    "Content-Transfer-Encoding: 7bit\r\n"
    "\r\n";

// Makes it a multipart mail with a PDF attached.
inline void attach(tav_eml_smtp_send_mail& mail) {
  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_cBoundaryString = "BB";
  auto* part = new tav_eml_smtp_send_mail_part;
  part->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  part->m_nTransferEncoding = TAV_EML_TE_BASE64;
  part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  part->m_cFIleName = "a.pdf";
  mail.set_part(part);
}

inline void set_up(fake_platform& net, mail_host& host, _tav_eml_smtp_setting& record,
                   tls_mode mode = tls_mode::plain) {
  net.resolve(kServer, {kAddress});
  net.serve(kAddress, 25, host, mode);
  record.server = kServer;
  record.port = 25;
  record.timeout = 7;
}

// A host, settings for it, and the library's object that talks to it.
template <typename Host, typename Record, typename Settings, typename Boundary>
class Session : public testing::Test {
 protected:
  void TearDown() override {
    boundary.reset();
    settings.reset();
    EXPECT_TRUE(net.clean());
  }
  Boundary& facade() {
    if (!boundary) {
      settings = std::make_unique<Settings>(record);
      boundary = std::make_unique<Boundary>(*settings);
    }
    return *boundary;
  }
  // A new object with the settings as they are in the record now.
  Boundary& renewed() {
    boundary.reset();
    return facade();
  }

  fake_platform net;
  log_capture log;
  Host host;
  Record record;
  std::unique_ptr<Settings> settings;
  std::unique_ptr<Boundary> boundary;
};

class Dialogue : public Session<smtp_host, _tav_eml_smtp_setting, tav_eml_smtp_settings,
                                tav_eml_smtp_boundary> {
 protected:
  Dialogue() { set_up(net, host, record); }
  // A session with another host.
  TAV_EML_RESULT test_with(smtp_host& other) {
    net.serve(kAddress, 25, other);
    return renewed().test();
  }
};

}  // namespace dialogue

#endif
