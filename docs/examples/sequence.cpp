// sequence - reads the messages of a mailbox and prints what every call returned.
//
//   SEQUENCE_PASSWORD=... sequence HOST PORT USER
//
// The guide shows its output for the messages in mails/.

#include <cstdlib>
#include <iostream>
#include <string>

#include "quorvelmida/taveml_easy.h"

using namespace quorvelmida;

namespace {

constexpr size_t kCallColumn = 22;

void line(const std::string& call, const std::string& what) {
  std::cout << call << std::string(kCallColumn - call.size(), ' ') << what << '\n';
}

std::string shown(const std::string& data) {
  std::string text;
  for (const char ch : data) text += ch == '\r' ? "\\r" : ch == '\n' ? "\\n" : std::string(1, ch);
  return '"' + text + '"';
}

std::string state(TAV_EML_RESULT result, const tav_eml_pop3_receive_mail& mail,
                  const tav_eml_mlutl_mail_part& part) {
  return std::string(easy::result_name(result)) + "; m_nComplete " +
         std::to_string(part.m_nComplete) + ", m_nReceiving " + std::to_string(mail.m_nReceiving);
}

void read_data(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail,
               tav_eml_mlutl_mail_part& part) {
  while (part.m_nComplete == 0) {
    const bool is_mail = &part == &mail;
    const TAV_EML_RESULT result =
        is_mail ? session.receive_body(mail) : session.receive_part_body(mail);
    line(is_mail ? "receive_body" : "receive_part_body", state(result, mail, part));
    if (result != TAV_EML_OK && result != TAV_EML_ERR_UNKNOWN) return;
    line("get_buffer", shown(easy::take(part)));
  }
}

bool read_mail(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail) {
  TAV_EML_RESULT result = session.receive_header(mail, 0);
  line("receive_header",
       state(result, mail, mail) + ", \"" + easy::text_of(mail.m_cMediaType) + '"');
  if (result != TAV_EML_OK) return false;
  if (mail.m_nContentType == TAV_EML_CT_TEXT_PLAIN) read_data(session, mail, mail);
  while (mail.m_nReceiving != 0) {
    mail.set_part(new tav_eml_pop3_receive_mail_part);
    line("set_part", "");
    result = session.receive_part_header(mail, 0);
    tav_eml_mlutl_mail_part& part = *mail.get_part();
    line("receive_part_header",
         state(result, mail, part) + ", \"" + easy::text_of(part.m_cMediaType) + '"');
    if (result != TAV_EML_OK) return false;
    read_data(session, mail, part);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const char* const password = std::getenv("SEQUENCE_PASSWORD");
  if (argc != 4 || password == nullptr) return 64;
  const tav_eml_pop3_settings settings(
      easy::pop3_account(argv[1], std::atoi(argv[2]), argv[3], password));
  tav_eml_pop3_boundary session(settings);
  int count = 0;
  TAV_EML_RESULT result = session.connect_mail();
  if (result == TAV_EML_OK) result = session.stat(count);
  for (int number = 1; result == TAV_EML_OK && number <= count; ++number) {
    tav_eml_pop3_mail_info info(number, "", 0, 1);
    tav_eml_pop3_receive_mail mail(info);
    std::cout << "mail " << number << '\n';
    if (!read_mail(session, mail)) break;
  }
  session.close_mail();
  return result == TAV_EML_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
