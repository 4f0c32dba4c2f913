#include "reception/header_fields.h"

#include <memory>
#include <new>

#include "common/guard.h"
#include "common/text.h"
#include "message/content_type.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "reception/content_fields.h"

namespace quorvelmida {

namespace {

std::string_view trimmed(std::string_view text) {
  constexpr const char* kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

struct header_field {
  bool is(std::string_view wanted) const {
    return name.size() == wanted.size() && begins_with_word(name, wanted);
  }

  std::string_view name;
  std::string_view value;  // a NUL follows in its text
};

// The next line that is "name: value". Blanks before the colon are not skipped: with them the value
// includes the colon.
bool next_field(const header_lines& header, size_t& at, header_field& field) {
  std::string_view line;
  while (header.next(at, line)) {
    const size_t colon = line.find(':');
    if (colon == line.npos) continue;
    field.name = trimmed(line.substr(0, colon));
    field.value = trimmed(line.substr(field.name.size() + 1));
    return true;
  }
  return false;
}

template <UtlString tav_eml_mlutl_mail::*Member>
void store_text(tav_eml_mlutl_mail& mail, std::string_view value) {
  store_value(mail.*Member, value);
}

template <tav_eml_mlutl_mail_address tav_eml_mlutl_mail::*Member>
void store_address(tav_eml_mlutl_mail& mail, std::string_view value) {
  store_value((mail.*Member).m_cAddress, value);
}

using fields = tav_eml_mlutl_mail;
constexpr struct {
  std::string_view name;
  void (*store)(tav_eml_mlutl_mail& mail, std::string_view value);
} kMailFields[] = {
    {"to", store_address<&fields::m_cTo>},
    {"cc", store_address<&fields::m_cCc>},
    {"disposition-notification-to", store_address<&fields::m_cMdnAddress>},
    {"from", store_address<&fields::m_cFrom>},
    {"subject", store_text<&fields::m_cSubject>},
    {"message-id", store_text<&fields::m_cMessageId>},
    {"date", store_text<&fields::m_cDate>},
    {"in-reply-to", store_text<&fields::m_cInReplyTo>},
    {"references", store_text<&fields::m_cReferences>},
    {"reply-to", store_address<&fields::m_cReplyTo>},
    {"return-path", store_address<&fields::m_cReturnPath>},
};

constexpr std::string_view kContentType = "content-type";

// The fields of a header with a file name. The last of each kind counts.
class naming_fields {
 public:
  void note_type(std::string_view value) {
    if (!has_type_name(value)) return;
    m_cType = value;
    m_bTypeIsLast = true;
  }
  void note_disposition(std::string_view value) {
    if (!has_disposition_name(value)) return;
    m_cDisposition = value;
    m_bTypeIsLast = false;
  }
  void apply(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part) const {
    if (!m_bTypeIsLast) take_type_name(mail, part, m_cType);
    take_disposition_name(part, m_cDisposition);
    if (m_bTypeIsLast) take_type_name(mail, part, m_cType);
  }

 private:
  std::string_view m_cType;
  std::string_view m_cDisposition;
  bool m_bTypeIsLast = false;
};

// The fields that a message and a part have in common.
bool take_part_field(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                     const header_field& field, naming_fields& names) {
  if (field.is(kContentType)) {
    take_content_type(mail, part, field.value);
    names.note_type(field.value);
  } else if (field.is("content-disposition")) {
    take_content_disposition(part, field.value);
    names.note_disposition(field.value);
  } else if (field.is("content-transfer-encoding")) {
    take_transfer_encoding(part, field.value);
  } else if (field.is("content-x-ciajwnetfax")) {
    store_value(part.m_cContentCiajwnetfax, field.value);
  } else {
    return false;
  }
  return true;
}

}  // namespace

void take_mail_fields(tav_eml_mlutl_mail& mail, const header_lines& header) {
  naming_fields names;
  header_field field;
  for (size_t at = 0; next_field(header, at, field);) {
    if (take_part_field(mail, mail, field, names)) continue;
    for (const auto& known : kMailFields) {
      if (!field.is(known.name)) continue;
      known.store(mail, field.value);
      break;
    }
  }
  names.apply(mail, mail);
}

bool enter_multipart(tav_eml_mlutl_mail& mail, const header_lines& header) {
  header_field field;
  for (size_t at = 0; next_field(header, at, field);) {
    if (!field.is(kContentType) || field.value.empty()) continue;
    if (!is_multipart(tav_eml_mlutl_mail_type::test_content_type(field.value.data()))) continue;
    open_boundary(mail, field.value);
    return true;
  }
  return false;
}

void take_part_fields(tav_eml_mlutl_mail& mail, const header_lines& header) {
  tav_eml_mlutl_mail_part* part = mail.get_part();
  if (part == nullptr) return;
  naming_fields names;
  header_field field;
  for (size_t at = 0; next_field(header, at, field);) take_part_field(mail, *part, field, names);
  names.apply(mail, *part);
}

void tav_eml_mlutl_receive::RemoveWSP(const char* header, unsigned int /*length*/,
                                      UtlVector* lines) {
  if (header == nullptr || lines == nullptr) return;
  guarded("RemoveWSP", [&] {
    const header_lines unfolded(header);
    std::string_view text;
    for (size_t at = 0; unfolded.next(at, text);) {
      auto line = std::make_unique<UtlString>(text.data());
      if (lines->Add(lines->Count(), line.get()) == 0) throw std::bad_alloc();
      static_cast<void>(line.release());  // the vector owns it now
    }
  });
}

void tav_eml_mlutl_receive::AnalyzeMailHeader(tav_eml_mlutl_mail& mail, const char* header,
                                              unsigned int /*length*/) {
  if (header == nullptr) return;
  guarded("AnalyzeMailHeader", [&] { take_mail_fields(mail, header_lines(header)); });
}

int tav_eml_mlutl_receive::AnalyzePartHeader(tav_eml_mlutl_mail& mail, const char* header,
                                             unsigned int /*length*/) {
  if (header == nullptr) return 0;
  return guarded("AnalyzePartHeader", 0, [&] {
    const header_lines lines(header);
    if (enter_multipart(mail, lines)) return 1;
    take_part_fields(mail, lines);
    return 0;
  });
}

}  // namespace quorvelmida
