// scan - sends a file to some recipients, then saves what is in the mailbox.
//
//   SCAN_PASSWORD=... scan HOST SMTP_PORT POP3_PORT USER FROM TO,TO FILE

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "quorvelmida/taveml_easy.h"  // and taveml.h with it

using namespace quorvelmida;

TAV_EML_RESULT send(const tav_eml_smtp_settings& settings, const char* from, const char* to,
                    std::istream& file) {
  tav_eml_smtp_send_mail mail;
  mail.m_nCharSet = TAV_EML_CS_UTF_8;  // in transit; the texts given here are always UTF-8
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_cFrom = from;
  mail.m_cTo = to;
  mail.m_cSubject = "スキャン Scan";
  mail.m_cDate = easy::date_now().c_str();
  easy::attach(mail, TAV_EML_CT_APPLICATION_PDF, "報告書.pdf");

  tav_eml_smtp_boundary session(settings);
  easy::abort_guard guard(session);  // aborts the message unless guard.close() succeeds
  TAV_EML_RESULT result = guard.connect();
  if (result == TAV_EML_OK) result = session.send_header(mail);
  if (result == TAV_EML_OK) result = easy::send_text(session, mail, "ご確認ください。\n");
  if (result == TAV_EML_OK) result = session.send_part_header(mail);
  if (result == TAV_EML_OK) result = easy::send_stream(session, mail, file);
  return result == TAV_EML_OK ? guard.close(mail) : result;
}

struct saver : easy::part_sink {  // saves each part as a file
  bool header(tav_eml_pop3_receive_mail& mail) override {
    std::cout << easy::one_line(easy::to_utf8(mail.m_cSubject, mail.m_nCharSet)) << '\n';
    return true;
  }
  bool begin(const tav_eml_mlutl_mail_part& part) override {
    const std::string name = easy::to_utf8(part.m_cFIleName, part.m_nCharSet);
    const std::string place = prefix + std::to_string(++parts) + '-';  // no two have one name
    file.open(place + easy::safe_file_name(name, "text.txt"), std::ios::binary);
    return true;
  }
  bool data(const char* bytes, size_t length) override {
    return !file.write(bytes, static_cast<std::streamsize>(length)).fail();
  }
  bool end(bool) override {
    file.close();
    return !file.fail();
  }
  std::string prefix;
  int parts = 0;
  std::ofstream file;
};

TAV_EML_RESULT receive(const tav_eml_pop3_settings& settings) {
  tav_eml_pop3_boundary session(settings);
  const easy::close_guard guard(session);
  int count = 0;
  bool is_whole = true;
  TAV_EML_RESULT result = session.connect_mail();
  if (result == TAV_EML_OK) result = session.stat(count);
  for (int number = 1; result == TAV_EML_OK && number <= count; ++number) {
    tav_eml_pop3_mail_info info(number, "", 0, 1);
    tav_eml_pop3_receive_mail mail(info);
    saver sink;
    sink.prefix = std::to_string(number) + "-";
    result = easy::for_each_part(session, mail, sink);
    if (result == TAV_EML_OK) continue;  // all of it is saved: session.delete_mail(mail) may follow
    std::cout << "  not all of it is saved\n";
    is_whole = false;
    if (result == TAV_EML_ERR_UNKNOWN) result = TAV_EML_OK;  // the next message can be read
  }
  return is_whole || result != TAV_EML_OK ? result : TAV_EML_ERR_UNKNOWN;
}

int main(int argc, char** argv) {
  const char* const password = std::getenv("SCAN_PASSWORD");
  if (argc != 8 || password == nullptr) return 64;
  // STARTTLS and STLS, the certificate is checked, and the session logs in.
  const auto smtp = easy::smtp_account(argv[1], std::atoi(argv[2]), argv[4], password);
  const auto pop3 = easy::pop3_account(argv[1], std::atoi(argv[3]), argv[4], password);
  std::ifstream file(argv[7], std::ios::binary);
  TAV_EML_RESULT result = send(smtp, argv[5], argv[6], file);
  if (result == TAV_EML_OK) result = receive(pop3);
  std::cout << easy::result_name(result) << ' ' << easy::result_advice(result) << '\n';
  return result == TAV_EML_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
