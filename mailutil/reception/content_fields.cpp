// The receive parser: the values of the content headers, and delimiters.
//
//   Content-Type: type "/" subtype *(";" attribute "=" value)       (RFC 2045 5.1)

#include <algorithm>
#include <new>
#include <string>

#include "codec/encoded_words.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "reception/received_header.h"

namespace quorvelmida {

namespace {

// A delimiter must fit a line, and the open boundaries bounded memory.
constexpr size_t kMaxBoundary = 1000;
constexpr int kMaxLevels = 100;

constexpr char kTypeName[] = "name=";
constexpr char kDispositionName[] = "filename=";

constexpr size_t npos = std::string_view::npos;

std::string lower_case(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
  });
  return lower;
}

std::string_view without_blanks(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  return first == npos ? std::string_view() : text.substr(first);
}

// What follows "attribute=", without blanks and an opening quote. False when it is missing.
bool find_parameter(std::string_view value, const std::string& lower, std::string_view attribute,
                    std::string_view& text) {
  const size_t at = lower.find(attribute);
  if (at == npos) return false;
  text = without_blanks(value.substr(at + attribute.size()));
  if (!text.empty() && text.front() == '"') text.remove_prefix(1);
  return true;
}

void open_boundary(tav_eml_mlutl_mail& mail, std::string_view text) {
  const std::string boundary(text.substr(0, std::min(text.find('"'), text.find("\r\n"))));
  if (boundary.size() > kMaxBoundary || mail.m_nBoundaryLevel >= kMaxLevels) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():boundary not opened at level %d\n",
                      "AnalyzeContentType", static_cast<int>(mail.m_nBoundaryLevel));
    return;
  }
  // Going on without the level would mix its parts up.
  if (mail.up_boundary_level(boundary.c_str()) == 0) throw std::bad_alloc();
}

// The value of a name parameter in the header lines as received: up to the next quote, or unquoted
// up to the next parameter.
std::string_view raw_name(std::string_view lines, size_t at) {
  const std::string_view text = without_blanks(lines.substr(at));
  if (!text.empty() && text.front() == '"') return text.substr(1, text.find('"', 1) - 1);
  return text.substr(0, text.find(';'));
}

void set_file_name(const char* operation, tav_eml_mlutl_mail_part& part, std::string_view raw) {
  utl_buffer decoded;
  TAV_EML_CHAR_SET char_set = TAV_EML_CS_NONE;
  if (!decode_encoded_words(raw, line_breaks::blanked, decoded, char_set)) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_mlutl_receive::%s():tav_eml_mlutl_mime_utility::inline_decode return "
        "FALSE\n",
        operation);
    return;
  }
  UtlString name;
  store_value(name, {decoded.data(), static_cast<size_t>(decoded.length())});
  name.TrimTop();
  name.TrimBottom();
  const std::string_view text = text_of(name);
  const size_t dot = text.rfind('.');
  store_value(part.m_cFileExtension, dot == npos ? std::string_view() : text.substr(dot + 1));
  part.m_cFIleName = name;
}

// The extended form of an attribute: "name*=" for "name=".
std::string extended_form(const std::string& attribute) {
  return attribute.substr(0, attribute.size() - 1) + "*=";
}

bool has_name(const std::string& lower, const std::string& attribute) {
  return lower.find(attribute) != npos || lower.find(extended_form(attribute)) != npos;
}

// Looks for `attribute` ("name=") or its extended form in a header value. The plain form is then
// taken from `lines`, the header as received.
void analyze_name(const char* operation, tav_eml_mlutl_mail_part& part, std::string_view value,
                  const std::string& attribute, const UtlString& lines) {
  const std::string lower = lower_case(value);
  if (lower.find(attribute) != npos) {
    const std::string_view received = text_of(lines);
    const size_t at = received.find(attribute);
    if (at == npos) {
      TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_boundary::%s():No [name=] attribute\n", operation);
      return;
    }
    set_file_name(operation, part, raw_name(received, at + attribute.size()));
    return;
  }
  const std::string extended = extended_form(attribute);
  const size_t at = lower.find(extended);
  if (at == npos) return;
  std::string text(value.substr(at + extended.size()));
  std::replace(text.begin(), text.end(), '\r', ' ');
  tav_eml_mlutl_mime_utility::decode_and_set_escape_string(part, text.data());
}

}  // namespace

void store_value(UtlString& text, std::string_view value) {
  text.CopyString(value.empty() ? "" : value.data(), value.size());
  if (value.find('\r') == npos) return;
  // The text is the string's own memory, so writing to it is sound.
  char* const begin = const_cast<char*>(text.GetString());
  std::replace(begin, begin + text.GetLength(), '\r', ' ');
}

void analyze_content_type(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                          std::string_view value) {
  const std::string lower = lower_case(value);
  store_value(part.m_cContentType, value);
  store_value(part.m_cMediaType, value.substr(0, value.find(';')));
  part.m_nContentType = tav_eml_mlutl_mail_type::test_content_type(lower.c_str());

  std::string_view text;
  if (find_parameter(value, lower, "boundary=", text)) open_boundary(mail, text);
  if (find_parameter(value, lower, "charset=", text)) {
    part.m_nCharSet = tav_eml_mlutl_mail_type::test_char_set(std::string(text).c_str());
  }
}

void analyze_type_name(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                       std::string_view value) {
  const tav_eml_mlutl_mail_part* named = &part == &mail ? &mail : mail.get_part();
  analyze_name("AnalyzeContentType", part, value, kTypeName,
               named != nullptr ? named->m_cHeader1 : UtlString());
}

TAV_EML_TRANSFER_ENCODING analyze_transfer_encoding(tav_eml_mlutl_mail_part& part,
                                                    std::string_view value) {
  store_value(part.m_cTransferEncoding, value);
  part.m_nTransferEncoding =
      tav_eml_mlutl_mail_type::test_transfer_encoding(text_of(part.m_cTransferEncoding));
  return part.m_nTransferEncoding;
}

void analyze_content_disposition(tav_eml_mlutl_mail_part& part, std::string_view value) {
  const std::string lower = lower_case(value);
  part.m_nContentDisposition = tav_eml_mlutl_mail_type::test_content_disposition(lower.c_str());
}

void analyze_disposition_name(tav_eml_mlutl_mail_part& part, std::string_view value) {
  analyze_name("AnalyzeContentDisposition", part, value, kDispositionName, part.m_cHeader2);
}

bool has_type_name(std::string_view value) { return has_name(lower_case(value), kTypeName); }

bool has_disposition_name(std::string_view value) {
  return has_name(lower_case(value), kDispositionName);
}

int check_boundary(std::string_view line, tav_eml_mlutl_mail& mail) {
  constexpr std::string_view kDashes = "--";
  if (line.substr(0, kDashes.size()) != kDashes) return 0;
  const UtlString* boundary = mail.get_boundary_string();
  if (boundary == nullptr) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_mlutl_receive::ChkBoundaryString():[Return -1] no boundary string\n");
    return -1;
  }
  line.remove_prefix(kDashes.size());
  if (line.substr(0, boundary->GetLength()) != text_of(*boundary)) {
    TAV_EML_LOG_ERROR(
        "<Warning> tav_eml_mlutl_receive::ChkBoundaryString() [Return 0]:unmatched\n");
    return 0;
  }
  line.remove_prefix(boundary->GetLength());
  if (mail.m_nBoundarySeen == 0) {
    mail.m_nBoundarySeen = 1;
  } else if (tav_eml_mlutl_mail_part* part = mail.get_part()) {
    part->m_nComplete = 1;
  }
  if (line.substr(0, kDashes.size()) != kDashes) return 1;
  mail.down_boundary_level();
  return 2;
}

void tav_eml_mlutl_receive::AnalyzeContentType(tav_eml_mlutl_mail& mail,
                                               tav_eml_mlutl_mail_part& part, UtlString& value) {
  guarded("AnalyzeContentType", 0, [&] {
    analyze_content_type(mail, part, text_of(value));
    analyze_type_name(mail, part, text_of(value));
    return 1;
  });
}

TAV_EML_TRANSFER_ENCODING tav_eml_mlutl_receive::AnalyzeTransferEncoding(
    tav_eml_mlutl_mail_part& part, UtlString& value) {
  return guarded("AnalyzeTransferEncoding", TAV_EML_TE_UNKNOWN,
                 [&] { return analyze_transfer_encoding(part, text_of(value)); });
}

void tav_eml_mlutl_receive::AnalyzeContentDisposition(tav_eml_mlutl_mail_part& part,
                                                      UtlString& value) {
  guarded("AnalyzeContentDisposition", 0, [&] {
    analyze_content_disposition(part, text_of(value));
    analyze_disposition_name(part, text_of(value));
    return 1;
  });
}

int tav_eml_mlutl_receive::ChkBoundaryString(const char* line, tav_eml_mlutl_mail& mail) {
  if (line == nullptr) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_mlutl_receive::ChkBoundaryString():[Return -1] pBuf is NULL.\n");
    return -1;
  }
  return check_boundary(line, mail);
}

}  // namespace quorvelmida
