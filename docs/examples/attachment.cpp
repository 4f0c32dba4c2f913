// attachment - sends a text in ISO-2022-JP and files, with all kinds of header fields.
//
//   attachment HOST PORT FROM TO PDF [CSV]

#include <cstdlib>
#include <fstream>
#include <iostream>
// [check]
#include <string>

// [compose]
// [several]
#include "quorvelmida/taveml_easy.h"

using namespace quorvelmida;

// [/several]
// [/compose]
// [/check]
namespace {

// [check]
// True if the character set has every character of a UTF-8 text.
bool can_express(const std::string& text, TAV_EML_CHAR_SET char_set) {
  std::string room(text.size() * 4 + 16, '\0');  // escape sequences need more than the characters
  const TAV_EML_ENCODED_STRING in = {TAV_EML_CS_UTF_8, const_cast<char*>(text.data()),
                                     static_cast<int32_t>(text.size())};
  TAV_EML_ENCODED_STRING out = {char_set, &room[0], static_cast<int32_t>(room.size())};
  int consumed = 0;
  return tav_eml_mlutl_mail_type::convert_encoded_string(in, out, consumed) == 0 &&
         consumed == in.length;  // out.data now has out.length bytes of the text in `char_set`
}
// [/check]

// [compose]
bool compose(tav_eml_smtp_send_mail& mail, const char* from, const char* to) {
  mail.m_nCharSet = TAV_EML_CS_ISO_2022_JP;  // of the text and of the header
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_cFrom = easy::named_address("複合機 3F", from, mail.m_nCharSet).c_str();
  mail.m_cTo = to;
  mail.m_cDate = easy::date_now().c_str();
  if (mail.set_mdn_address(from) == 0) return false;  // ask for a notification when it is displayed

  char* subject = nullptr;
  int length = 0;
  if (tav_eml_smtp_util::make_subject("%printer からのお知らせ", &subject, &length) != TAV_EML_OK) {
    return false;
  }
  mail.m_cSubject = subject;
  tav_eml_smtp_util::free_buffer(subject);

  easy::attach(mail, TAV_EML_CT_APPLICATION_PDF, "報告書 その1.pdf").set_content_ciajwnetfax(1);
  return true;
}
// [/compose]

// [several]
// Another attachment, of a type that has no value of its own, after the first one was sent whole.
TAV_EML_RESULT add_table(tav_eml_smtp_boundary& session, tav_eml_smtp_send_mail& mail,
                         std::istream& file) {
  easy::attach(mail, "text/csv", "明細.csv").m_nCharSet = TAV_EML_CS_UTF_8;  // of the file's bytes
  const TAV_EML_RESULT result = session.send_part_header(mail);
  return result == TAV_EML_OK ? easy::send_stream(session, mail, file) : result;
}
// [/several]

TAV_EML_RESULT send(const tav_eml_smtp_settings& settings, tav_eml_smtp_send_mail& mail,
                    const std::string& text, std::istream& file, std::istream* table) {
  tav_eml_smtp_boundary session(settings);
  easy::abort_guard guard(session);
  TAV_EML_RESULT result = guard.connect();
  if (result == TAV_EML_OK) result = session.send_header(mail);
  if (result == TAV_EML_OK) result = easy::send_text(session, mail, text);
  if (result == TAV_EML_OK) result = session.send_part_header(mail);
  if (result == TAV_EML_OK) result = easy::send_stream(session, mail, file);
  if (result == TAV_EML_OK && table != nullptr) result = add_table(session, mail, *table);
  return result == TAV_EML_OK ? guard.close(mail) : result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6 || argc > 7) return 64;
  _tav_eml_smtp_setting record = easy::smtp_account(argv[1], std::atoi(argv[2]), "", "");
  record.size_limit = 10u << 20;
  std::ifstream file(argv[5], std::ios::binary);
  std::ifstream table(argv[argc - 1], std::ios::binary);
  const std::string text = "お世話になっております。①②③\n";
  tav_eml_smtp_send_mail mail;
  if (!compose(mail, argv[3], argv[4]) || !can_express(text, mail.m_nCharSet)) return 65;
  const TAV_EML_RESULT result = send(record, mail, text, file, argc > 6 ? &table : nullptr);
  std::cerr << easy::result_advice(result) << '\n';
  return result == TAV_EML_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
