// dialogue_fixture.h - the library, a scripted SMTP host and a mail to send.

#ifndef DIALOGUE_FIXTURE_H
#define DIALOGUE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "fake_memory.h"
#include "fake_platform.h"
#include "log_capture.h"
#include "quorvelmida/taveml.h"
#include "smtp_host.h"
#include "utl_os.h"

namespace dialogue {

using namespace quorvelmida;
using tav_test::net_call;
using tav_test::smtp_host;

constexpr char kServer[] = "mail.example";
constexpr char kAddress[] = "192.0.2.1";

// Puts bytes into a part.
inline void give(tav_eml_mlutl_mail_part& part, const std::string& bytes) {
  void* block = UtlOS::MemAllocate(bytes.size() + 1);
  ASSERT_NE(block, nullptr);
  std::memcpy(block, bytes.c_str(), bytes.size() + 1);
  long length = static_cast<long>(bytes.size());
  if (part.set_buffer(block, length) == 0) UtlOS::MemFree(block);
}

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

class Dialogue : public testing::Test {
 protected:
  Dialogue() {
    net.resolve(kServer, {kAddress});
    net.serve(kAddress, 25, host);
    record.server = kServer;
    record.port = 25;
    record.timeout = 7;
  }
  void TearDown() override {
    boundary.reset();
    settings.reset();
    EXPECT_TRUE(net.clean());
  }

  tav_eml_smtp_boundary& facade() {
    if (!boundary) {
      settings = std::make_unique<tav_eml_smtp_settings>(record);
      boundary = std::make_unique<tav_eml_smtp_boundary>(*settings);
    }
    return *boundary;
  }

  tav_test::fake_platform net;
  tav_test::log_capture log;
  smtp_host host;
  _tav_eml_smtp_setting record;
  std::unique_ptr<tav_eml_smtp_settings> settings;
  std::unique_ptr<tav_eml_smtp_boundary> boundary;
};

}  // namespace dialogue

#endif
