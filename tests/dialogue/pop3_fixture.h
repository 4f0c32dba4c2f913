// pop3_fixture.h - the library, a scripted POP3 host and an application that reads mail.

#ifndef POP3_FIXTURE_H
#define POP3_FIXTURE_H

#include <vector>

#include "dialogue_fixture.h"
#include "fail_new.h"
#include "pop3_host.h"

namespace dialogue {

constexpr char kStamp[] = "<4711.0815>";
constexpr char kDigest[] = "aef3ff0e3ee45aaf05f54b10584907b1";  // MD5 of the stamp and "pw"

inline void set_up(fake_platform& net, pop3_host& host, _tav_eml_pop3_setting& record,
                   tls_mode mode = tls_mode::plain) {
  net.resolve(kServer, {kAddress});
  net.serve(kAddress, 110, host, mode);
  host.account("u", "pw");
  host.stamp(kStamp);
  host.expect_apop("u", kDigest);
  record.strServer = kServer;
  record.nPort = 65536 + 110;  // the low 16 bits count
  record.strUserID = "u";
  record.strPassword = "pw";
  record.nTimeout = 7;
}

// What an application has of one part, or of a mail of a single part.
struct received_part {
  std::string type, name, data;
  bool is_trace = true;  // has no header, or is complete straight after it
  long longest = 0;      // of its blocks
};

struct received_mail {
  TAV_EML_RESULT result = TAV_EML_OK;
  int unusable = 0;  // blocks and headers that gave TAV_EML_ERR_UNKNOWN
  std::vector<received_part> parts;

  // "type|name|data;" for each part but the traces.
  std::string shown() const {
    std::string all;
    for (const received_part& part : parts) {
      if (!part.is_trace) all += part.type + "|" + part.name + "|" + part.data + ";";
    }
    return all;
  }
};

// The application. It takes parts from a pool that is filled before anything is made to fail.
struct reader {
  explicit reader(tav_eml_pop3_boundary& facade) : boundary(facade) {}

  tav_eml_pop3_boundary& boundary;
  std::vector<std::unique_ptr<tav_eml_pop3_receive_mail_part>> pool;
  std::function<void()> after_step = [] {};
  int steps = 0;

  // False when reading cannot go on.
  bool goes_on(received_mail& got, TAV_EML_RESULT result) {
    const new_failure_pause pause;
    after_step();
    if (result == TAV_EML_ERR_UNKNOWN) ++got.unusable;
    if (result != TAV_EML_OK) got.result = result;
    EXPECT_LT(++steps, 100000) << "reads for ever";
    return steps < 100000 && (result == TAV_EML_OK || result == TAV_EML_ERR_UNKNOWN);
  }

  void take(tav_eml_mlutl_mail_part& part, received_part& into) {
    void* data = nullptr;
    long length = 0;
    if (part.get_buffer(data, length) == 0 || data == nullptr) return;
    const new_failure_pause pause;
    into.data += taken(data, length);
    into.longest = std::max(into.longest, length);
  }

  void describe(const tav_eml_mlutl_mail_part& part, received_part& into) {
    const new_failure_pause pause;
    into.type = text(part.m_cMediaType);
    into.name = text(part.m_cFIleName);
  }

  // Reads the next part; false when the connection is lost.
  bool read_part(tav_eml_pop3_receive_mail& mail, received_mail& got) {
    {
      const new_failure_pause pause;
      if (pool.empty()) pool.push_back(std::make_unique<tav_eml_pop3_receive_mail_part>());
      got.parts.emplace_back();
      mail.set_part(pool.back().release());
      pool.pop_back();
    }
    received_part& now = got.parts.back();
    const TAV_EML_RESULT result = boundary.receive_part_header(mail, 0);
    if (!goes_on(got, result)) return false;
    if (result != TAV_EML_OK) return true;  // a further one may be better
    tav_eml_mlutl_mail_part& part = *mail.get_part();
    describe(part, now);
    now.is_trace = part.m_nComplete != 0;
    while (part.m_nComplete == 0) {
      if (!goes_on(got, boundary.receive_part_body(mail))) return false;
      take(part, now);
    }
    return true;
  }

  // Reads the mail to its end. What cannot be used is counted and passed over.
  received_mail read(tav_eml_pop3_receive_mail& mail) {
    received_mail got;
    if (!goes_on(got, boundary.receive_header(mail, 0)) || got.unusable != 0) return got;
    const bool is_multipart = mail.m_nContentType == TAV_EML_CT_MULTIPART ||
                              mail.m_nContentType == TAV_EML_CT_MULTIPART_MIXED ||
                              mail.m_nContentType == TAV_EML_CT_MULTIPART_REPORT;
    if (is_multipart) {
      while (mail.m_nReceiving != 0 && read_part(mail, got)) {
      }
      return got;
    }
    {
      const new_failure_pause pause;
      got.parts.emplace_back().is_trace = false;
    }
    describe(mail, got.parts[0]);
    while (mail.m_nReceiving != 0 && goes_on(got, boundary.receive_body(mail))) {
      take(mail, got.parts[0]);
    }
    return got;
  }
};

class Pop3 : public Session<pop3_host, _tav_eml_pop3_setting, tav_eml_pop3_settings,
                            tav_eml_pop3_boundary> {
 protected:
  Pop3() { set_up(net, host, record); }
  void TearDown() override {
    Session::TearDown();
    for (const char* secret : {"pw", kDigest}) EXPECT_FALSE(log.contains(secret)) << secret;
  }

  fake_memory memory;
};

}  // namespace dialogue

#endif
