// The header of a part on the wire (RFC 2045, RFC 2183).

#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

#include "clb.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "message/part_text.h"
#include "quorvelmida/tav_eml_mlutl_mail_part.h"

namespace quorvelmida {

namespace {

// Appends to the header; a failure is logged with the number of its step.
class part_header {
 public:
  bool append(std::initializer_list<std::string_view> texts, int line) {
    if (append_header_text(m_cText, texts)) return true;
    TAV_EML_LOG_ERROR("<Error> : tav_eml_mlutl_mail_part::make_header() add_buffer[NG]: Line%d\n",
                      line);
    return false;
  }

  void release(char*& buffer, long& length) { m_cText.release(buffer, length); }

 private:
  utl_buffer m_cText;
};

// type "/" subtype, two tokens (RFC 2045 5.1)
bool is_media_type(const char* text) {
  static constexpr char kToken[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'*+-.^_`{|}~";
  constexpr size_t kLongest = 127;  // RFC 6838 4.2
  const size_t type = std::strspn(text, kToken);
  if (type == 0 || type > kLongest || text[type] != '/') return false;
  const char* const rest = text + type + 1;
  const size_t subtype = std::strspn(rest, kToken);
  return subtype > 0 && subtype <= kLongest && rest[subtype] == '\0';
}

// The table has a type for the wire, or the application has given the text of another.
bool has_usable_type(const tav_eml_mlutl_mail_part& part) {
  if (part.m_nContentType != TAV_EML_CT_UNKNOWN) return part.m_nContentType != TAV_EML_CT_NONE;
  return is_media_type(text_of(part.m_cMediaType));
}

bool append_content_type(part_header& header, const tav_eml_mlutl_mail_part& part) {
  constexpr int kStep = 415;
  const char* type = part.m_nContentType == TAV_EML_CT_UNKNOWN
                         ? text_of(part.m_cMediaType)
                         : tav_eml_mlutl_mail_type::get_content_type(part.m_nContentType);
  const bool has_char_set =
      part.m_nCharSet != TAV_EML_CS_UNKNOWN && part.m_nCharSet != TAV_EML_CS_NONE;
  if (clb_CompStrCaseN(type, "text", 4) != 0 || !has_char_set) {
    return header.append({"Content-Type: ", type}, kStep);
  }
  const char* char_set = tav_eml_mlutl_mail_type::get_char_set(part.m_nCharSet);
  return header.append({"Content-Type: ", type, "; charset=\"", char_set, "\""}, kStep);
}

bool append_disposition(part_header& header, const tav_eml_mlutl_mail_part& part) {
  const TAV_EML_CONTENT_DISPOSITION disposition = part.m_nContentDisposition;
  const char* text = tav_eml_mlutl_mail_type::get_content_disposition(disposition);
  if (disposition == TAV_EML_CD_ATTACHMENT && !part.m_cFIleName.IsEmpty()) {
    const char* name = text_of(part.m_cFIleName);
    return header.append({";\r\n\tname=\""}, 426) && header.append({name}, 430) &&
           header.append({"\"\r\nContent-Disposition: ", text, ";\r\n\tfilename=\""}, 435) &&
           header.append({name}, 439) && header.append({"\""}, 443);
  }
  if (disposition == TAV_EML_CD_UNKNOWN || disposition == TAV_EML_CD_NONE) return true;
  return header.append({"\r\nContent-Disposition: ", text}, 454);
}

bool append_lines(part_header& header, tav_eml_mlutl_mail_part& part) {
  if (!append_content_type(header, part) || !append_disposition(header, part)) return false;
  const TAV_EML_TRANSFER_ENCODING encoding = part.m_nTransferEncoding;
  if (encoding != TAV_EML_TE_UNKNOWN && encoding != TAV_EML_TE_NONE &&
      !header.append({"\r\nContent-Transfer-Encoding: ",
                      tav_eml_mlutl_mail_type::get_transfer_encoding(encoding)},
                     465)) {
    return false;
  }
  if (part.is_ignore_content_ciajwnetfax() != 0 &&
      !header.append({"\r\nContent-X-CIAJWNETFAX: ",
                      tav_eml_mlutl_mail_type::get_contet_x_ciajwnetfax(TAV_EML_CX_IGNORE)},
                     476)) {
    return false;
  }
  return header.append({"\r\n\r\n"}, 484);
}

}  // namespace

int tav_eml_mlutl_mail_part::make_header(char*& buffer, long& length) {
  buffer = nullptr;
  length = 0;
  if (!has_usable_type(*this)) {
    return part_failure("make_header", " IsContentTypeAvail returns [FALSE]");
  }
  if (!is_header_value(text_of(m_cFIleName))) {
    // A line break in the name could forge a header line.
    return part_failure("make_header", " line break in m_cFIleName");
  }
  return guarded("make_header", 0, [&] {
    return reporting_mail_exceptions("<Error> : tav_eml_mlutl_mail_part::make_header()", 0, [&] {
      part_header header;
      if (!append_lines(header, *this)) return 0;
      header.release(buffer, length);
      return 1;
    });
  });
}

}  // namespace quorvelmida
