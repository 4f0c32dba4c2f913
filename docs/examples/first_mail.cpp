// first_mail - sends a short text.
//
//   first_mail HOST PORT FROM TO

#include <cstdlib>
#include <cstring>

#include "blocks.h"
#include "quorvelmida/taveml.h"

using namespace quorvelmida;

// [first]
int main(int argc, char** argv) {
  if (argc != 5) return 64;

  _tav_eml_smtp_setting record;
  record.server = argv[1];
  record.port = std::atoi(argv[2]);
  record.timeout = 30;    // seconds, for each wait
  record.tlsmode = 2;     // STARTTLS
  record.tls_opt[0] = 1;  // check the server's certificate
  const tav_eml_smtp_settings settings(record);

  char date[64] = "";
  tav_eml_smtp_util::get_date(1, sizeof date, date);

  tav_eml_smtp_send_mail mail;
  mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.m_nCharSet = TAV_EML_CS_UTF_8;
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_cFrom = tav_eml_mlutl_mail_address(argv[3]);
  mail.m_cTo = tav_eml_mlutl_mail_address(argv[4]);
  mail.m_cSubject = "はじめてのメール";
  mail.m_cDate = date;
  const char text[] = "Hello,\r\nこんにちは。\r\n";

  tav_eml_smtp_boundary session(settings);
  TAV_EML_RESULT result = session.connect_mail();
  if (result != TAV_EML_OK) return tell("connect_mail", result);

  result = session.send_header(mail);
  if (result == TAV_EML_OK) {
    result = give(mail, text, std::strlen(text)) ? session.send_body(mail) : TAV_EML_ERR_NO_MEMORY;
  }
  if (result == TAV_EML_OK) result = session.close_mail(mail);
  if (result != TAV_EML_OK) session.abort_mail();
  return tell("sending", result);
}
// [/first]
