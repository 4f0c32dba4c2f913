// send_text.cpp - sends its standard input as the body of a mail, as it is.
//
//   send_text HOST PORT CHARSET ENCODING MESSAGE_ID < body
//
// Without TLS and login, through the library's interface: tavmail encodes every body.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <string>

#include "quorvelmida/taveml.h"
#include "utl_os.h"

namespace {

using namespace quorvelmida;

TAV_EML_RESULT send(tav_eml_smtp_boundary& boundary, tav_eml_smtp_send_mail& mail,
                    const std::string& body) {
  TAV_EML_RESULT result = boundary.connect_mail();
  if (result == TAV_EML_OK) result = boundary.send_header(mail);
  if (result == TAV_EML_OK) {
    void* data = UtlOS::MemAllocate(body.size() + 1);
    std::memcpy(data, body.c_str(), body.size() + 1);
    long length = static_cast<long>(body.size());
    mail.set_buffer(data, length);
    result = boundary.send_body(mail);
  }
  if (result == TAV_EML_OK) return boundary.close_mail(mail);
  boundary.abort_mail();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 64;
  const std::string body{std::istreambuf_iterator<char>(std::cin), {}};
  _tav_eml_smtp_setting record;
  record.server = argv[1];
  record.port = std::atoi(argv[2]);
  record.timeout = 20;
  const tav_eml_smtp_settings settings(record);
  tav_eml_smtp_boundary boundary(settings);
  tav_eml_smtp_send_mail mail;
  mail.m_nCharSet = tav_eml_mlutl_mail_type::test_char_set(argv[3]);
  mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.m_nTransferEncoding = tav_eml_mlutl_mail_type::test_transfer_encoding(argv[4]);
  mail.m_cFrom = tav_eml_mlutl_mail_address("anna@test.example");
  mail.m_cTo = tav_eml_mlutl_mail_address("bob@test.example");
  mail.m_cSubject = "text";
  mail.m_cDate = "Thu, 01 Jan 2026 00:00:00 +0000";
  mail.set_message_id(argv[5]);
  const TAV_EML_RESULT result = send(boundary, mail, body);
  if (result == TAV_EML_OK) return 0;
  std::fprintf(stderr, "%08x\n", static_cast<unsigned int>(result));
  return 1;
}
