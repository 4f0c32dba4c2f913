// A whole send session: a mail from the input, sent in the input's order to a server that says what
// the input says.
//
// Control bytes: failing allocation (2), conditions (6), shape of the mail (2), kind of login. Then
// a line of orders (c connect, h header, b body, p part header, q part body, e end with the mail, E
// end, a abort, T test), the lines From, To, Cc, Bcc, Subject, boundary and file name, the body and
// the attachment up to a 0x1C each, and what the server says.

#include "fuzz_host.h"
#include "values.h"

namespace {

using namespace quorvelmida;

constexpr TAV_EML_CONTENT_TYPE kTypes[] = {TAV_EML_CT_TEXT_PLAIN, TAV_EML_CT_MULTIPART_MIXED,
                                           TAV_EML_CT_MULTIPART_REPORT, TAV_EML_CT_TEXT_HTML,
                                           TAV_EML_CT_UNKNOWN};
constexpr TAV_EML_TRANSFER_ENCODING kEncodings[] = {TAV_EML_TE_7BIT, TAV_EML_TE_BASE64,
                                                    TAV_EML_TE_8BIT, TAV_EML_TE_QUOTED_PRINTABLE,
                                                    TAV_EML_TE_NONE};
constexpr TAV_EML_CHAR_SET kSets[] = {
    TAV_EML_CS_UTF_8, TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS, TAV_EML_CS_US_ASCII,
    TAV_EML_CS_X_JIS, TAV_EML_CS_ISO_8859_1,  TAV_EML_CS_NONE};

struct letter {
  explicit letter(fuzz::input& in) {
    const unsigned type_and_encoding = in.number();
    type = kTypes[type_and_encoding % 5];
    encoding = kEncodings[type_and_encoding / 5 % 5];
    const unsigned set_and_disposition = in.number();
    char_set = kSets[set_and_disposition % 7];
    disposition = static_cast<TAV_EML_CONTENT_DISPOSITION>(set_and_disposition / 7 % 4);
    auth_kind = static_cast<int32_t>(in.number() % 4);
    orders = in.text();
    for (std::string* field : {&from, &to, &cc, &bcc, &subject, &boundary, &file_name})
      *field = in.value();
    body = in.text(fuzz::kClose);
    attachment = in.text(fuzz::kClose);
    script = in.rest();
  }

  TAV_EML_CONTENT_TYPE type;
  TAV_EML_TRANSFER_ENCODING encoding;
  TAV_EML_CHAR_SET char_set;
  TAV_EML_CONTENT_DISPOSITION disposition;
  int32_t auth_kind;
  std::string orders, from, to, cc, bcc, subject, boundary, file_name, body, attachment, script;
};

void fill(tav_eml_smtp_send_mail& mail, const letter& text) {
  mail.m_nContentType = text.type;
  mail.m_nTransferEncoding = text.encoding;
  mail.m_nCharSet = text.char_set;
  mail.m_cFrom = tav_eml_mlutl_mail_address(text.from.c_str());
  mail.m_cTo = tav_eml_mlutl_mail_address(text.to.c_str());
  mail.m_cCc = tav_eml_mlutl_mail_address(text.cc.c_str());
  mail.m_cBcc = tav_eml_mlutl_mail_address(text.bcc.c_str());
  mail.m_cSubject = text.subject.c_str();
  mail.m_cDate = "Sat, 21 Nov 2026 10:00:00 +0900";
  mail.m_cBoundaryString = text.boundary.c_str();
  mail.set_message_id("1@b.example");
  if (text.file_name.empty()) return;
  auto* const part = new tav_eml_smtp_send_mail_part;
  mail.set_part(part);
  part->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  part->m_nTransferEncoding = text.encoding;
  part->m_nContentDisposition = text.disposition;
  part->m_nCharSet = text.char_set;
  part->m_cFIleName = text.file_name.c_str();
}

void give(tav_eml_mlutl_mail_part& part, const std::string& bytes) {
  void* block = tav_test::block_of(bytes);
  if (block == nullptr) return;
  long length = static_cast<long>(bytes.size());
  if (part.set_buffer(block, length) != 0) REQUIRE(block == nullptr && length == 0);
  UtlOS::MemFree(block);
}

class session {
 public:
  session(const tav_eml_smtp_settings& settings, const letter& text)
      : m_boundary(settings), m_text(text) {
    fill(m_mail, text);
  }

  // After a failure only the end is left, as the interface wants it.
  void play() {
    bool failed = false;
    for (const char order : m_text.orders.substr(0, 32)) {
      const bool ends = order == 'a' || order == 'e' || order == 'E' || order == 'c';
      if (failed && !ends) continue;
      const TAV_EML_RESULT result = step(order);
      m_seen += std::to_string(result) + "\n";
      failed = (failed || result != TAV_EML_OK) && !ends;
    }
    m_boundary.abort_mail();
  }

  std::string seen() const { return m_seen; }

 private:
  TAV_EML_RESULT step(char order) {
    switch (order) {
      case 'c':
        return m_boundary.connect_mail();
      case 'h':
        return m_boundary.send_header(m_mail);
      case 'b':
        give(m_mail, m_text.body);
        return m_boundary.send_body(m_mail);
      case 'p':
        return m_boundary.send_part_header(m_mail);
      case 'q':
        if (m_mail.m_pPart != nullptr) give(*m_mail.m_pPart, m_text.attachment);
        return m_boundary.send_part_body(m_mail);
      case 'e':
        return m_boundary.close_mail(m_mail);
      case 'E':
        return m_boundary.close_mail();
      case 'a':
        return m_boundary.abort_mail();
      case 'T':
        return m_boundary.test();
      default:
        return TAV_EML_OK;
    }
  }

  tav_eml_smtp_boundary m_boundary;
  const letter& m_text;
  tav_eml_smtp_send_mail m_mail;
  std::string m_seen;
};

// What leaves is lines: every LF has its CR.
void check_line_ends(const std::string& sent) {
  for (size_t at = sent.find('\n'); at != std::string::npos; at = sent.find('\n', at + 1))
    REQUIRE(at > 0 && sent[at - 1] == '\r');
}

std::string run(const fuzz::conditions& how, const letter& text) {
  _tav_eml_smtp_setting record = fuzz::smtp_record(how);
  record.auth_kind = text.auth_kind;
  const tav_eml_smtp_settings settings(record);
  const size_t size =
      text.script.size() + text.orders.size() * (text.body.size() + text.attachment.size() +
                                                 text.subject.size() * 4 + 4096);
  fuzz::host server(fuzz::protocol::smtp, text.script, how);
  const fuzz::network network(how, server, size);
  session application(settings, text);
  application.play();
  if (!how.fails()) check_line_ends(server.heard());
  return application.seen() + server.heard();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, [](fuzz::input& in, tav_test::fake_memory& memory) {
    const fuzz::conditions how(in);
    const letter text(in);
    const std::string seen = run(how, text);
    if (how.fails() || memory.failed()) return;
    memory.never_fail();
    REQUIRE(run(how.in_one_piece(), text) == seen);
  });
}
