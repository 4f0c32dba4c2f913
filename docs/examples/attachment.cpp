// attachment - sends a text and a file, with all kinds of header fields.
//
//   attachment HOST PORT FROM TO FILE

#include <cstdlib>
#include <fstream>
#include <string>

#include "blocks.h"
#include "quorvelmida/taveml.h"

using namespace quorvelmida;

namespace {

// [named]
// "NAME <ADDRESS>" with the name as encoded words of `char_set`. `room` is that of a line, less the
// header's label and blank.
std::string named_address(const std::string& name, const std::string& address,
                          TAV_EML_CHAR_SET char_set, int room) {
  char* words = nullptr;
  long length = 0;
  if (tav_eml_mlutl_mime_utility::ToMimeEncode(
          char_set, name.data(), static_cast<long>(name.size()), words, length, room) == 0) {
    return {};  // a character that the character set lacks, or no memory
  }
  const std::string encoded(words, static_cast<size_t>(length));
  UtlOS::MemFree(words);
  return encoded + " <" + address + ">";
}
// [/named]

// [macros]
bool set_subject(tav_eml_smtp_send_mail& mail, const char* text) {
  char* subject = nullptr;
  int length = 0;
  if (tav_eml_smtp_util::make_subject(text, &subject, &length) != TAV_EML_OK) return false;
  mail.m_cSubject = subject;
  tav_eml_smtp_util::free_buffer(subject);
  return true;
}
// [/macros]

// [compose]
bool compose(tav_eml_smtp_send_mail& mail, const char* from, const char* to,
             const std::string& file_name) {
  char date[64] = "";
  if (tav_eml_smtp_util::get_date(1, sizeof date, date) == 0) return false;

  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  mail.m_cBoundaryString = "=_K4nZ0yVt8wQ2";  // must not occur in the data; "=_" never does
  mail.m_nCharSet = TAV_EML_CS_ISO_2022_JP;   // of the text and of the header
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  const std::string author = named_address("複合機 3F", from, mail.m_nCharSet, 70);
  mail.m_cFrom = tav_eml_mlutl_mail_address(author.c_str());
  mail.m_cTo = tav_eml_mlutl_mail_address(to);
  mail.m_cDate = date;
  if (author.empty() || !set_subject(mail, "%printer からのお知らせ")) return false;
  if (mail.set_mdn_address(from) == 0) return false;  // ask for a notification when it is displayed

  auto* const part = new tav_eml_smtp_send_mail_part;
  mail.set_part(part);  // the mail owns it now
  part->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  part->m_nTransferEncoding = TAV_EML_TE_BASE64;
  part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  part->m_cFIleName = file_name.c_str();
  part->set_content_ciajwnetfax(1);  // "Content-X-CIAJWNETFAX: IGNORE"
  return true;
}
// [/compose]

// [pieces]
// Sends the file in pieces. Any size works; multiples of 48 bytes make full base64 lines.
TAV_EML_RESULT send_file(tav_eml_smtp_boundary& session, tav_eml_smtp_send_mail& mail,
                         std::istream& file) {
  std::string piece(48 * 1024, '\0');
  for (;;) {
    file.read(piece.data(), static_cast<std::streamsize>(piece.size()));
    const auto count = static_cast<size_t>(file.gcount());
    if (count == 0) return TAV_EML_OK;  // send_part_body without data would be an error
    if (!give(*mail.m_pPart, piece.data(), count)) return TAV_EML_ERR_NO_MEMORY;
    const TAV_EML_RESULT result = session.send_part_body(mail);
    if (result != TAV_EML_OK) return result;
  }
}
// [/pieces]

// [send]
TAV_EML_RESULT send(const tav_eml_smtp_settings& settings, tav_eml_smtp_send_mail& mail,
                    const std::string& text, std::istream& file) {
  tav_eml_smtp_boundary session(settings);
  TAV_EML_RESULT result = session.connect_mail();
  if (result != TAV_EML_OK) return result;

  result = session.send_header(mail);
  if (result == TAV_EML_OK && !text.empty()) {
    result = give(mail, text.data(), text.size()) ? session.send_body(mail) : TAV_EML_ERR_NO_MEMORY;
  }
  if (result == TAV_EML_OK) result = session.send_part_header(mail);
  if (result == TAV_EML_OK) result = send_file(session, mail, file);
  if (result == TAV_EML_OK && file.bad()) result = TAV_EML_ERR_UNKNOWN;  // do not send half a file
  if (result == TAV_EML_OK) result = session.close_mail(mail);
  if (result != TAV_EML_OK) session.abort_mail();
  return result;
}
// [/send]

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 64;
  _tav_eml_smtp_setting record;
  record.server = argv[1];
  record.port = std::atoi(argv[2]);
  record.timeout = 30;
  record.tlsmode = 2;
  record.tls_opt[0] = 1;
  record.size_limit = 10u << 20;
  const tav_eml_smtp_settings settings(record);

  std::ifstream file(argv[5], std::ios::binary);
  tav_eml_smtp_send_mail mail;
  if (!file || !compose(mail, argv[3], argv[4], "報告書 その1.pdf")) return 66;
  return tell("sending", send(settings, mail, "お世話になっております。①②③\r\n", file));
}
