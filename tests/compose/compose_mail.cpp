// compose_mail.cpp - sends one mail through the library to an SMTP host in the same process and
// writes what arrived. What to send is read from the files of a directory; a file that is missing
// leaves its field alone.
//
//   compose_mail DIR
//     in:  charset, from, to, cc, subject, body, name and data (of the attachment), piece (how many
//          bytes are handed over at a time)
//     out: mail.eml

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "fake_platform.h"
#include "host_peer.h"
#include "values.h"

namespace {

using namespace quorvelmida;

std::string g_directory;

std::optional<std::string> read(const char* name) {
  std::ifstream file(g_directory + "/" + name, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// The end of a piece of at most `size` bytes that does not split a UTF-8 character.
size_t piece_end(const std::string& text, size_t at, size_t size, bool is_text) {
  size_t end = std::min(text.size(), at + size);
  while (is_text && end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
    ++end;
  }
  return end;
}

template <typename Send>
int send_pieces(tav_eml_mlutl_mail_part& part, const std::string& bytes, size_t size, bool is_text,
                Send&& send) {
  for (size_t at = 0; at < bytes.size();) {
    const size_t end = piece_end(bytes, at, size, is_text);
    tav_test::give(part, bytes.substr(at, end - at));
    if (const int result = send()) return result;
    at = end;
  }
  return 0;
}

void fill(tav_eml_smtp_send_mail& mail) {
  mail.m_nCharSet = tav_eml_mlutl_mail_type::test_char_set(read("charset").value_or("").c_str());
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.m_cFrom = tav_eml_mlutl_mail_address(read("from").value_or("").c_str());
  mail.m_cTo = tav_eml_mlutl_mail_address(read("to").value_or("").c_str());
  if (const auto cc = read("cc")) mail.m_cCc = tav_eml_mlutl_mail_address(cc->c_str());
  mail.m_cSubject = read("subject").value_or("").c_str();
  mail.m_cDate = "Sat, 21 Nov 2026 10:00:00 +0900";
  const auto name = read("name");
  if (!name) return;
  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  mail.m_cBoundaryString = "=_next";
  auto* part = new tav_eml_smtp_send_mail_part;
  part->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  part->m_nTransferEncoding = TAV_EML_TE_BASE64;
  part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  part->m_cFIleName = name->c_str();
  mail.set_part(part);
}

int send(tav_eml_smtp_boundary& boundary, tav_eml_smtp_send_mail& mail) {
  const size_t piece = std::stoul(read("piece").value_or("100000"));
  int result = boundary.connect_mail();
  if (result == 0) result = boundary.send_header(mail);
  if (result == 0) {
    result = send_pieces(mail, read("body").value_or(""), piece, true,
                         [&] { return boundary.send_body(mail); });
  }
  if (result == 0 && mail.m_pPart != nullptr) {
    result = boundary.send_part_header(mail);
    if (result == 0) {
      result = send_pieces(*mail.m_pPart, read("data").value_or(""), piece, false,
                           [&] { return boundary.send_part_body(mail); });
    }
  }
  return result == 0 ? boundary.close_mail(mail) : result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  g_directory = argv[1];
  tav_test::fake_platform net;
  mailhost::mail_host host;
  tav_test::host_door door(host, mailhost::protocol::smtp);
  net.serve("192.0.2.1", 25, door);
  _tav_eml_smtp_setting record;
  record.server = "192.0.2.1";
  record.port = 25;
  const tav_eml_smtp_settings settings(record);
  tav_eml_smtp_boundary boundary(settings);
  tav_eml_smtp_send_mail mail;
  fill(mail);
  const int result = send(boundary, mail);
  if (result != 0 || host.memory.mails().size() != 1 || !net.clean()) {
    std::fprintf(stderr, "compose_mail: 0x%08x\n", static_cast<unsigned int>(result));
    return 1;
  }
  std::ofstream(g_directory + "/mail.eml", std::ios::binary) << host.memory.mails()[0].data;
  return 0;
}
