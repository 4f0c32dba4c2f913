// The receive parser: header lines and where their values go.

#include <memory>
#include <new>
#include <string>

#include "clb.h"
#include "common/guard.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "reception/received_header.h"

namespace quorvelmida {

namespace {

constexpr std::string_view kLineEnd = "\r\n";

std::string_view trimmed(std::string_view text) {
  constexpr const char* kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Takes "name: value" apart. The value begins where the colon of a name without blanks stands: with
// blanks in front of the colon, the colon belongs to the value.
bool split_field(std::string_view line, std::string_view& name, std::string_view& value) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  name = trimmed(line.substr(0, colon));
  value = trimmed(line.substr(name.size() + 1));
  return true;
}

bool is_name(std::string_view name, std::string_view wanted) {
  return name.size() == wanted.size() &&
         clb_CompStrCaseN(name.data(), wanted.data(), wanted.size()) == 0;
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

// The fields of a header that tell a file name: the last of each kind counts.
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
    if (!m_bTypeIsLast) analyze_type_name(mail, part, m_cType);
    analyze_disposition_name(part, m_cDisposition);
    if (m_bTypeIsLast) analyze_type_name(mail, part, m_cType);
  }

 private:
  std::string_view m_cType;
  std::string_view m_cDisposition;
  bool m_bTypeIsLast = false;
};

// The fields that a message and a part have in common.
bool store_part_field(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                      std::string_view name, std::string_view value, naming_fields& names) {
  if (is_name(name, kContentType)) {
    analyze_content_type(mail, part, value);
    names.note_type(value);
  } else if (is_name(name, "content-disposition")) {
    analyze_content_disposition(part, value);
    names.note_disposition(value);
  } else if (is_name(name, "content-transfer-encoding")) {
    analyze_transfer_encoding(part, value);
  } else if (is_name(name, "content-x-ciajwnetfax")) {
    store_value(part.m_cContentCiajwnetfax, value);
  } else {
    return false;
  }
  return true;
}

}  // namespace

// Each line without its line end takes up the following ones without their first blank, in one
// pass, however many they are.
std::vector<std::string> unfold_header(const char* header) {
  std::vector<std::string> lines;
  std::string_view rest = header;
  while (!rest.empty()) {
    const size_t end = rest.find(kLineEnd);
    const size_t size = end == std::string_view::npos ? rest.size() : end + kLineEnd.size();
    std::string_view line = rest.substr(0, size);
    rest.remove_prefix(size);
    if (!lines.empty() && (line.front() == ' ' || line.front() == '\t')) {
      std::string& previous = lines.back();
      previous.erase(previous.size() - kLineEnd.size());
      previous.append(line.substr(1));
    } else {
      lines.emplace_back(line);
    }
  }
  return lines;
}

void analyze_mail_header(tav_eml_mlutl_mail& mail, const char* header) {
  const std::vector<std::string> lines = unfold_header(header);
  naming_fields names;
  for (const std::string& line : lines) {
    std::string_view name, value;
    if (!split_field(line, name, value)) continue;
    if (store_part_field(mail, mail, name, value, names)) continue;
    for (const auto& field : kMailFields) {
      if (!is_name(name, field.name)) continue;
      field.store(mail, value);
      break;
    }
  }
  names.apply(mail, mail);
}

bool enter_multipart(tav_eml_mlutl_mail& mail, const char* header) {
  for (const std::string& line : unfold_header(header)) {
    std::string_view name, value;
    if (!split_field(line, name, value) || !is_name(name, kContentType)) continue;
    tav_eml_mlutl_mail_part container;
    container.m_nContentType =
        tav_eml_mlutl_mail_type::test_content_type(std::string(value).c_str());
    if (!is_multipart(container)) continue;
    analyze_content_type(mail, container, value);
    return true;
  }
  return false;
}

void analyze_leaf_header(tav_eml_mlutl_mail& mail, const char* header) {
  tav_eml_mlutl_mail_part* part = mail.get_part();
  if (part == nullptr) return;
  const std::vector<std::string> lines = unfold_header(header);
  naming_fields names;
  for (const std::string& line : lines) {
    std::string_view name, value;
    if (split_field(line, name, value)) store_part_field(mail, *part, name, value, names);
  }
  names.apply(mail, *part);
}

void tav_eml_mlutl_receive::RemoveWSP(const char* header, unsigned int /*length*/,
                                      UtlVector* lines) {
  if (header == nullptr || lines == nullptr) return;
  guarded("RemoveWSP", 0, [&] {
    for (const std::string& text : unfold_header(header)) {
      auto line = std::make_unique<UtlString>(text.c_str());
      if (lines->Add(lines->Count(), line.get()) == 0) throw std::bad_alloc();
      static_cast<void>(line.release());  // the vector's from here on
    }
    return 1;
  });
}

void tav_eml_mlutl_receive::AnalyzeMailHeader(tav_eml_mlutl_mail& mail, const char* header,
                                              unsigned int /*length*/) {
  guarded("AnalyzeMailHeader", 0, [&] {
    if (header != nullptr) analyze_mail_header(mail, header);
    return 1;
  });
}

int tav_eml_mlutl_receive::AnalyzePartHeader(tav_eml_mlutl_mail& mail, const char* header,
                                             unsigned int /*length*/) {
  return guarded("AnalyzePartHeader", 0, [&] {
    if (header == nullptr) return 0;
    if (enter_multipart(mail, header)) return 1;
    analyze_leaf_header(mail, header);
    return 0;
  });
}

}  // namespace quorvelmida
