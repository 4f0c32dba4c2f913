#include "outgoing_header.h"

#include <cstring>
#include <initializer_list>
#include <new>
#include <string>
#include <string_view>

#include "clb.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "message/address_text.h"
#include "message/content_type.h"
#include "message/part_text.h"
#include "quorvelmida/tav_eml_mlutl_mail_exception.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"

namespace quorvelmida {

namespace {

constexpr char kSeparators[] = ";,";

bool is_encoding_set(TAV_EML_TRANSFER_ENCODING encoding) {
  return encoding != TAV_EML_TE_UNKNOWN && encoding != TAV_EML_TE_NONE;
}

// What a formatted line must stay below, its CR LF included. A folded value counts as one line.
constexpr size_t kLineLimit = 1024;

// Of a list each value has a line of its own: the first after the label, the others after a tab.
bool fits_line(size_t label_length, bool is_first, size_t value_length) {
  const size_t front = is_first ? label_length + 1 : 1;
  return front + value_length + 2 < kLineLimit;
}

bool addresses_fit(const char* list, size_t label_length) {
  std::string_view address;
  bool is_first = true;
  for (int pos = 0; find_address(list, pos, kSeparators, address); is_first = false) {
    const size_t comma = list[pos] != '\0' ? 1 : 0;
    if (!fits_line(label_length, is_first, address.size() + comma)) return false;
  }
  return true;
}

// Finds the next id in angle brackets and moves `at` past it.
bool find_id(const char*& at, std::string_view& id) {
  const char* open = std::strchr(at, '<');
  const char* close = open != nullptr ? std::strchr(open, '>') : nullptr;
  if (close == nullptr) return false;
  at = close + 1;
  id = {open, static_cast<size_t>(at - open)};
  return true;
}

bool ids_fit(const char* ids, size_t label_length) {
  std::string_view id;
  for (bool is_first = true; find_id(ids, id); is_first = false) {
    if (!fits_line(label_length, is_first, id.size())) return false;
  }
  return true;
}

}  // namespace

bool append_addresses(const tav_eml_mlutl_mail_address& list, const char* label, utl_buffer& header,
                      long& count) {
  constexpr char kName[] = "MakeHeaderAddress";
  count = 0;
  if (!addresses_fit(text_of(list.m_cAddress), std::strlen(label))) {
    TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::%s():line too long\n", kName);
    return false;
  }
  try {
    std::string lines;
    UtlString address;
    for (int pos = 0; cut_address(list, address, pos, kSeparators); ++count) {
      const bool is_first = count == 0;
      lines += joined({is_first ? label : ",\r\n", is_first ? " " : "\t", address.GetString()});
    }
    if (count == 0) return true;
    lines += "\r\n";
    if (append_header_text(header, {lines})) return true;
    TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::%s():add_buffer NG\n", kName);
  } catch (const std::bad_alloc&) {
    TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::%s():MemRealloc NG\n", kName);
  }
  return false;
}

bool append_ids(const UtlString& value, const char* label, utl_buffer& header) {
  constexpr char kName[] = "make_header_bracket";
  if (value.IsEmpty()) return true;
  if (!ids_fit(value.GetString(), std::strlen(label))) {
    TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::%s:line too long\n", kName);
    return false;
  }
  const char* at = value.GetString();
  std::string_view id;
  bool is_written = false;
  for (; find_id(at, id); is_written = true) {
    if (!append_header_text(header,
                            {is_written ? "" : label, is_written ? "\t" : " ", id, "\r\n"})) {
      TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::%s:add_buffer NG\n", kName);
      return false;
    }
  }
  if (std::strchr(at, '<') != nullptr) {
    TAV_EML_LOG_ERROR("<Warning>tav_eml_smtp_send_mail::%s:not found bracket'>'\n", kName);
  }
  return is_written;
}

namespace {

bool header_failure(const char* text) {
  TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::MakeHeader : %s\n", text);
  return false;
}

// The header under construction. Each append fails with the number of its step in the log.
class message_header {
 public:
  explicit message_header(tav_eml_smtp_send_mail& mail)
      : m_cMail(mail), m_cType(tav_eml_mlutl_mail_type::get_content_type(mail.m_nContentType)) {}

  bool compose() {
    return add_required() && add_recipients() && add_originators() && add_ids() &&
           append({"Mime-Version: 1.0\r\n"}, 392) && add_content_type() &&
           add_transfer_encoding() && append({"\r\n"}, 439) &&
           (!is_multipart() || add_leading_part());
  }
  void release(char*& buffer, long& length) { m_cText.release(buffer, length); }

 private:
  bool is_text() const { return clb_CompStrCaseN(m_cType, "text", 4) == 0; }
  bool is_multipart() const { return quorvelmida::is_multipart(m_cMail.m_nContentType); }

  bool append(std::initializer_list<std::string_view> texts, int line) {
    return append_header_text(m_cText, texts) || failed("add_buffer", line);
  }

  static bool failed(const char* called, int line) {
    TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::MakeHeader() %s[NG]: Line%d\n", called,
                      line);
    return false;
  }

  // A header that must be there. Null text means that the application never set it.
  bool add_field(const char* label, const UtlString& value, const char* missing, int line) {
    if (value.GetString() == nullptr) return header_failure(missing);
    return append({label, " ", value.GetString(), "\r\n"}, line);
  }

  bool add_addresses(const char* label, const tav_eml_mlutl_mail_address& list, int line,
                     long& count) {
    return append_addresses(list, label, m_cText, count) || failed("MakeHeaderAddress", line);
  }

  bool add_bracket(const char* label, const UtlString& value, int line) {
    return append_ids(value, label, m_cText) || failed("make_header_bracket", line);
  }

  bool add_required() {
    return add_field("Date:", m_cMail.m_cDate, "pdate == NULL", 219) &&
           add_field("From:", m_cMail.m_cFrom.m_cAddress, "pfrom == NULL", 234) &&
           add_field("Subject:", m_cMail.m_cSubject, "psubject == NULL", 248);
  }

  // Blind copies count as recipients and are never written.
  bool add_recipients() {
    long to = 0;
    long cc = 0;
    if (!add_addresses("To:", m_cMail.m_cTo, 296, to) ||
        !add_addresses("Cc:", m_cMail.m_cCc, 303, cc)) {
      return false;
    }
    UtlString address;
    int pos = 0;
    const long bcc = cut_address(m_cMail.m_cBcc, address, pos, kSeparators) ? 1 : 0;
    if (to + cc + bcc > 0) return true;
    return header_failure("addr_count == 0");
  }

  bool add_originators() {
    long count = 0;
    long senders = 0;
    if (!add_addresses("Reply-To:", m_cMail.m_cReplyTo, 324, count) ||
        !add_addresses("Sender:", m_cMail.m_cSender, 333, senders)) {
      return false;
    }
    constexpr long kMostSenders = 1;
    if (senders > kMostSenders) {
      TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::MakeHeader : senderaddr_count > %ld\n",
                        kMostSenders);
      return false;
    }
    return add_addresses("Disposition-Notification-To:", m_cMail.m_cMdnAddress, 349, count);
  }

  bool add_ids() {
    UtlString id(m_cMail.m_cMessageId);
    if (id.IsEmpty()) make_message_id(m_cMail.m_cFrom, id);
    return add_bracket("Message-Id:", id, 367) &&
           add_bracket("In-Reply-To:", m_cMail.m_cInReplyTo, 375) &&
           add_bracket("References:", m_cMail.m_cReferences, 383);
  }

  bool add_content_type() {
    constexpr int kStep = 414;
    if (is_text()) return append_text_type(m_cType, kStep);
    if (is_multipart()) {
      return append({"Content-Type: ", m_cType, ";\r\n\tboundary=\"",
                     text_of(m_cMail.m_cBoundaryString), "\"\r\n"},
                    kStep);
    }
    return header_failure("Invalid ContentType.");
  }

  // At the top of a multipart message it is always 8bit: the real encodings stand in the parts.
  bool add_transfer_encoding() {
    if (!is_encoding_set(m_cMail.m_nTransferEncoding)) return true;
    return append_transfer_encoding(is_multipart() ? TAV_EML_TE_8BIT : m_cMail.m_nTransferEncoding,
                                    432);
  }

  // A message that is multipart begins with its text: the boundary line and that part's header.
  bool add_leading_part() {
    if (!append({"--", text_of(m_cMail.m_cBoundaryString), "\r\n"}, 448) ||
        !append_text_type("text/plain", 459)) {
      return false;
    }
    const TAV_EML_TRANSFER_ENCODING encoding = m_cMail.m_nTransferEncoding;
    if (is_encoding_set(encoding) && !append_transfer_encoding(encoding, 468)) return false;
    if (m_cMail.is_ignore_content_ciajwnetfax() != 0 &&
        !append({"Content-X-CIAJWNETFAX: ",
                 tav_eml_mlutl_mail_type::get_contet_x_ciajwnetfax(TAV_EML_CX_IGNORE), "\r\n"},
                478)) {
      return false;
    }
    return append({"\r\n"}, 486);
  }

  bool append_text_type(const char* type, int line) {
    return append({"Content-Type: ", type, "; charset=\"",
                   tav_eml_mlutl_mail_type::get_char_set(m_cMail.m_nCharSet), "\"\r\n"},
                  line);
  }

  bool append_transfer_encoding(TAV_EML_TRANSFER_ENCODING encoding, int line) {
    return append({"Content-Transfer-Encoding: ",
                   tav_eml_mlutl_mail_type::get_transfer_encoding(encoding), "\r\n"},
                  line);
  }

  tav_eml_smtp_send_mail& m_cMail;
  const char* const m_cType;
  utl_buffer m_cText;
};

// How the value of a field stands in the header.
enum class field_lines { none, one, addresses, ids };

// The name is the field's label without its colon.
bool fits_lines(field_lines lines, const char* name, const UtlString& value) {
  const size_t label_length = std::strlen(name) + 1;
  switch (lines) {
    case field_lines::one:
      return fits_line(label_length, true, value.GetLength());
    case field_lines::addresses:
      return addresses_fit(text_of(value), label_length);
    case field_lines::ids:
      return ids_fit(text_of(value), label_length);
    default:
      return true;
  }
}

// The boundary lines are shorter than the line of the header that announces the boundary.
bool is_usable_boundary(TAV_EML_CONTENT_TYPE type, const UtlString& boundary) {
  constexpr size_t kAround = sizeof "Content-Type: ;\r\n\tboundary=\"\"\r\n" - 1;
  const char* text = text_of(boundary);
  return !boundary.IsEmpty() && has_no_control(text) && std::strchr(text, '"') == nullptr &&
         kAround + std::strlen(tav_eml_mlutl_mail_type::get_content_type(type)) +
                 boundary.GetLength() <
             kLineLimit;
}

}  // namespace

const char* unsafe_header_field(const tav_eml_smtp_send_mail& mail) {
  const struct {
    const char* name;
    const UtlString& value;
    field_lines lines;
  } fields[] = {
      {"date", mail.m_cDate, field_lines::one},
      {"from", mail.m_cFrom.m_cAddress, field_lines::one},
      {"subject", mail.m_cSubject, field_lines::one},
      {"to", mail.m_cTo.m_cAddress, field_lines::addresses},
      {"cc", mail.m_cCc.m_cAddress, field_lines::addresses},
      {"bcc", mail.m_cBcc.m_cAddress, field_lines::none},
      {"reply-to", mail.m_cReplyTo.m_cAddress, field_lines::addresses},
      {"sender", mail.m_cSender.m_cAddress, field_lines::addresses},
      {"disposition-notification-to", mail.m_cMdnAddress.m_cAddress, field_lines::addresses},
      {"message-id", mail.m_cMessageId, field_lines::ids},
      {"in-reply-to", mail.m_cInReplyTo, field_lines::ids},
      {"references", mail.m_cReferences, field_lines::ids},
  };
  for (const auto& field : fields) {
    if (!is_header_value(text_of(field.value)) ||
        !fits_lines(field.lines, field.name, field.value)) {
      return field.name;
    }
  }
  if (is_multipart(mail.m_nContentType) &&
      !is_usable_boundary(mail.m_nContentType, mail.m_cBoundaryString)) {
    return "boundary";
  }
  if (mail.m_pPart != nullptr && !is_header_value(text_of(mail.m_pPart->m_cFIleName))) {
    return "file name";
  }
  return nullptr;
}

bool compose_header(tav_eml_smtp_send_mail& mail, char*& buffer, long& length) {
  buffer = nullptr;
  length = 0;
  if (mail.m_nCharSet == TAV_EML_CS_UNKNOWN || mail.m_nCharSet == TAV_EML_CS_NONE) {
    return header_failure("IsCharSetAvail NG");
  }
  try {
    message_header header(mail);
    if (!header.compose()) return false;
    if (const char* field = unsafe_header_field(mail)) {
      TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::MakeHeader : invalid %s\n", field);
      return false;
    }
    header.release(buffer, length);
    return true;
  } catch (tav_eml_mlutl_mail_exception* thrown) {
    delete thrown;
    return header_failure("Exception occured.");
  } catch (const std::bad_alloc&) {
    return header_failure("out of memory");
  }
}

}  // namespace quorvelmida
