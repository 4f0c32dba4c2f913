#include "composed_mail.h"

#include <memory>

#include "message_text.h"
#include "problem.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "utl_os.h"
#include "words.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// A text that the library hands out.
class library_text {
 public:
  char*& text() { return m_text; }
  long& length() { return m_length; }
  std::string string() const { return {m_text, static_cast<size_t>(m_length)}; }

  library_text() = default;
  library_text(const library_text&) = delete;
  library_text& operator=(const library_text&) = delete;
  ~library_text() { UtlOS::MemFree(m_text); }

 private:
  char* m_text = nullptr;
  long m_length = 0;
};

// As the facade would send it.
std::string composed_header(tav_eml_smtp_send_mail& mail) {
  library_text plain;
  library_text encoded;
  if (mail.make_header(plain.text(), plain.length()) == 0 ||
      tav_eml_mlutl_mime_utility::inline_encode(plain.text(), plain.length(), encoded.text(),
                                                encoded.length(), mail.m_nCharSet) == 0) {
    throw problem(EX_DATAERR, "the header of the mail cannot be composed; shorten what is in it");
  }
  return encoded.string();
}

bool tells_of_content(const header_field& field) {
  return is_same_word(field.name, "Mime-Version") ||
         is_same_word(field.name.substr(0, 8), "Content-");
}

std::vector<header_field> fields_of(const std::string& header) {
  header_block block;
  for (size_t at = 0, end = 0; at < header.size(); at = end) {
    end = header.find("\r\n", at) + 2;
    block.take(header.substr(at, end - 2 - at) + "\n");
  }
  std::vector<header_field> fields;
  for (const header_field& field : block.fields()) {
    if (!tells_of_content(field)) fields.push_back(field);
  }
  return fields;
}

}  // namespace

mime_mail as_mime(outgoing& out, bool is_fax, const std::function<void(size_t)>& advance) {
  mime_mail mail;
  out.mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.header = fields_of(composed_header(out.mail));
  mail.own = out.own;
  const TAV_EML_CHAR_SET set = out.mail.m_nCharSet;
  const std::string set_name = tav_eml_mlutl_mail_type::get_char_set(set);
  if (out.body) mail.texts.push_back({"plain", in_char_set(*out.body, set), set_name});
  if (out.html) mail.texts.push_back({"html", in_char_set(*out.html, set), set_name});
  for (const auto& file : out.files) {
    attachment* const source = file.get();
    const bool has_set = file->char_set() != TAV_EML_CS_NONE;
    const auto read = [source, advance](char* bytes, size_t size) {
      const size_t count = source->read(bytes, size);
      advance(count);
      return count;
    };
    mail.files.push_back({read, file->media_type(),
                          has_set ? tav_eml_mlutl_mail_type::get_char_set(file->char_set()) : "",
                          file->name(), file->is_encoded(), is_fax});
  }
  return mail;
}

}  // namespace tavmail
