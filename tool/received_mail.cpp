#include "received_mail.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

#include "dialogue_view.h"
#include "header_value.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"
#include "quorvelmida/taveml_easy.h"
#include "received_text.h"
#include "saved_text.h"
#include "words.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr size_t kMostParts = 2000;  // files that one mail may make

std::string text_of(const UtlString& text) {
  return text.GetString() != nullptr ? text.GetString() : "";
}

// The file name as UTF-8. The library decodes it and leaves its character set, which the header
// lines as received tell.
std::string name_of(const tav_eml_mlutl_mail_part& part) {
  const std::string pieces = parameter_in_pieces(text_of(part.m_cHeader2), "filename");
  if (!pieces.empty()) return presentable(pieces);
  std::string set = named_char_set(text_of(part.m_cHeader2));
  if (set.empty()) set = named_char_set(text_of(part.m_cHeader1));
  const std::string known = text_of(part.m_cFIleName);
  const bool is_extended = text_of(part.m_cHeader2).find("filename*=") != std::string::npos;
  for (const std::string& received :
       {parameter_of(text_of(part.m_cHeader2), "filename="),
        is_extended ? std::string() : parameter_of(text_of(part.m_cHeader1), "name=")}) {
    if (received == known) break;
    if (received.find("=?") != std::string::npos) {
      return presentable(trimmed(header_value(received, set)));
    }
  }
  return presentable(header_text(known, set));
}

received_part describe(const tav_eml_mlutl_mail_part& part) {
  received_part out;
  out.content_type = presentable(trimmed(text_of(part.m_cMediaType)));
  out.char_set = presentable(parameter_of(text_of(part.m_cContentType), "charset="));
  out.encoding = presentable(text_of(part.m_cTransferEncoding));
  if (part.m_nContentDisposition == TAV_EML_CD_INLINE) out.disposition = "inline";
  if (part.m_nContentDisposition == TAV_EML_CD_ATTACHMENT) out.disposition = "attachment";
  out.name = name_of(part);
  return out;
}

void describe(tav_eml_pop3_receive_mail& mail, const raw_header& header, received_mail& out) {
  const std::string set = tav_eml_mlutl_mail_type::get_char_set(mail.m_nCharSet);
  const auto text = [&](const char* name, const UtlString& decoded) {
    const std::optional<std::string> received = header.value(name);
    return presentable(received ? header_value(*received, set)
                                : header_text(text_of(decoded), set));
  };
  out.number = mail.m_MailInfo.m_nMailNo;
  out.uid = text_of(mail.m_MailInfo.m_strUID);
  out.size = mail.m_MailInfo.m_lSize;
  out.from = text("from", mail.m_cFrom.m_cAddress);
  out.to = text("to", mail.m_cTo.m_cAddress);
  out.cc = text("cc", mail.m_cCc.m_cAddress);
  out.reply_to = text("reply-to", mail.m_cReplyTo.m_cAddress);
  out.subject = text("subject", mail.m_cSubject);
  out.date = text("date", mail.m_cDate);
  out.message_id = text("message-id", mail.m_cMessageId);
  out.content_type = presentable(trimmed(text_of(mail.m_cMediaType)));
}

bool is_multipart(const tav_eml_mlutl_mail_part& part) {
  return part.m_nContentType == TAV_EML_CT_MULTIPART ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_MIXED ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_REPORT;
}

// A name for a part that has none.
std::string default_name(const tav_eml_mlutl_mail_part& part, const std::string& content_type) {
  static constexpr struct {
    const char* type;
    const char* name;
  } kNames[] = {{"text/html", "text.html"},          {"text/", "text.txt"},
                {"message/rfc822", "mail.eml"},      {"message/", "message.txt"},
                {"application/pdf", "document.pdf"}, {"application/postscript", "document.ps"},
                {"image/jpeg", "image.jpg"},         {"image/png", "image.png"},
                {"image/tiff", "image.tif"}};
  if (content_type.empty() || part.m_nContentType == TAV_EML_CT_TEXT_PLAIN) return "text.txt";
  for (const auto& entry : kNames) {
    if (strncasecmp(content_type.c_str(), entry.type, std::strlen(entry.type)) == 0) {
      return entry.name;
    }
  }
  return "attachment.bin";
}

// A text to be read, and not a file that somebody has sent.
bool is_text(const received_part& part) {
  const std::string type = lower_case(part.content_type);
  const bool is_readable = type.empty() || type.compare(0, 5, "text/") == 0;
  return is_readable && type != "text/xml" && part.name.empty() && part.disposition != "attachment";
}

void make_utf8(const std::string& folder, received_part& part) {
  const bool is_html = lower_case(part.content_type) == "text/html";
  part.is_utf8 = save_as_utf8(folder, part.file, part.char_set, is_html);
  if (part.is_utf8) part.bytes = std::filesystem::file_size(folder + "/" + part.file);
}

// Writes the blocks of a part. The line end in front of a delimiter belongs to the delimiter
// (RFC 2046 5.1.1), so the last two bytes wait until more comes.
class part_writer {
 public:
  part_writer(const std::string& folder, const std::string& name, bool holds_line_end,
              bool is_base64)
      : m_file(folder, name), m_holdsLineEnd(holds_line_end), m_base64(is_base64) {}

  void write(const char* bytes, size_t length) {
    // A base64 part of nothing but its last line end is an empty one: the library hands a block of
    // only a line end over as it is.
    if (m_base64 && m_file.size() == 0 && length == 2 && std::memcmp(bytes, "\r\n", 2) == 0) {
      return;
    }
    if (!m_held.empty()) {
      m_file.write(m_held.data(), m_held.size());
      m_held.clear();
    }
    if (m_holdsLineEnd && length >= 2 && std::memcmp(bytes + length - 2, "\r\n", 2) == 0) {
      m_held = "\r\n";
      length -= 2;
    }
    m_file.write(bytes, length);
  }

  saved_file& file() { return m_file; }

 private:
  saved_file m_file;
  const bool m_holdsLineEnd;
  const bool m_base64;
  std::string m_held;
};

}  // namespace

bool received_mail::is_safe() const {
  return is_kept ||
         (!parts.empty() && std::all_of(parts.begin(), parts.end(),
                                        [](const received_part& part) { return part.is_certain; }));
}

TAV_EML_RESULT mail_reader::read(tav_eml_pop3_mail_info& info, mail_folder& folder,
                                 const std::string& mark, received_mail& out) {
  tav_eml_pop3_receive_mail mail(info);
  m_header.begin();
  TAV_EML_RESULT result = m_session.receive_header(mail);
  if (result != TAV_EML_OK) m_progress();  // throws when the run is to end
  describe(mail, m_header, out);
  if (result != TAV_EML_OK) return result;
  const std::string unfinished = folder.begin_mail(mark);
  try {
    result = read_content(mail, folder.path_of(unfinished), out);
    if (result != TAV_EML_OK) m_progress();
    if (!out.parts.empty()) {
      out.folder = result == TAV_EML_OK ? folder.finish_mail(unfinished, mark) : unfinished;
    }
  } catch (...) {
    folder.discard(unfinished);
    throw;
  }
  if (out.parts.empty()) folder.discard(unfinished);
  return result;
}

TAV_EML_RESULT mail_reader::read_content(tav_eml_pop3_receive_mail& mail, const std::string& folder,
                                         received_mail& out) {
  return is_multipart(mail) ? read_parts(mail, folder, out) : read_body(mail, mail, folder, out);
}

TAV_EML_RESULT mail_reader::read_parts(tav_eml_pop3_receive_mail& mail, const std::string& folder,
                                       received_mail& out) {
  while (mail.m_nReceiving != 0) {
    m_progress();
    if (out.parts.size() >= kMostParts) return TAV_EML_ERR_UNKNOWN;
    mail.set_part(new tav_eml_pop3_receive_mail_part);
    tav_eml_mlutl_mail_part& part = *mail.get_part();
    TAV_EML_RESULT result = m_session.receive_part_header(mail);
    if (result != TAV_EML_OK) return result;
    // The trace of a multipart that came last, or a part cut off within its header.
    if (part.m_nComplete != 0) continue;
    result = read_body(mail, part, folder, out);
    if (result != TAV_EML_OK) return result;
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT mail_reader::read_body(tav_eml_pop3_receive_mail& mail,
                                      tav_eml_mlutl_mail_part& part, const std::string& folder,
                                      received_mail& out) {
  const bool is_part = &part != &mail;
  const bool is_encoded = part.m_nTransferEncoding == TAV_EML_TE_BASE64 ||
                          part.m_nTransferEncoding == TAV_EML_TE_QUOTED_PRINTABLE;
  const bool is_base64 = part.m_nTransferEncoding == TAV_EML_TE_BASE64;
  received_part entry = describe(part);
  part_writer writer(folder,
                     easy::safe_file_name(entry.name, default_name(part, entry.content_type)),
                     is_part && !is_base64, is_base64);
  while (part.m_nComplete == 0) {
    const TAV_EML_RESULT result =
        is_part ? m_session.receive_part_body(mail) : m_session.receive_body(mail);
    const easy::taken_block received(part);
    // A block that decoded to nothing; or one that could not be decoded, which cannot be told from
    // it.
    const bool is_empty = result == TAV_EML_ERR_UNKNOWN && is_encoded && received.size() == 0;
    if (is_empty) entry.is_certain = false;
    if (result != TAV_EML_OK && !is_empty) return result;
    writer.write(received.data(), received.size());
    m_progress();
  }
  writer.file().keep();
  entry.bytes = writer.file().size();
  entry.file = writer.file().name();
  if (!m_keepsCharSet && is_text(entry)) make_utf8(folder, entry);
  out.parts.push_back(entry);
  return TAV_EML_OK;
}

}  // namespace tavmail
