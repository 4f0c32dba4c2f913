// The values of the content fields.
//
//   Content-Type: type "/" subtype *(";" attribute "=" value)       (RFC 2045 5.1)

#include "reception/content_fields.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "codec/encoded_words.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"

namespace quorvelmida {

namespace {

// A delimiter must fit a line, and the open boundaries bounded memory.
constexpr size_t kMaxBoundary = 1000;
constexpr int kMaxLevels = 100;

constexpr size_t npos = std::string_view::npos;

// A name parameter, plain and in its extended form (RFC 2231).
struct name_attribute {
  std::string_view plain;
  std::string_view extended;
};
constexpr name_attribute kTypeName = {"name=", "name*="};
constexpr name_attribute kDispositionName = {"filename=", "filename*="};

// Position of `word`, in lower case, in `text`, in any case; npos if it is missing.
size_t find_in_any_case(std::string_view text, std::string_view word) {
  const auto found = std::search(text.begin(), text.end(), word.begin(), word.end(),
                                 [](char left, char right) { return to_lower(left) == right; });
  return found != text.end() ? static_cast<size_t>(found - text.begin()) : npos;
}

std::string_view without_blanks(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  return first == npos ? std::string_view() : text.substr(first);
}

// The text after "attribute=", without blanks and an opening quote. False if it is missing.
bool find_parameter(std::string_view value, std::string_view attribute, std::string_view& text) {
  const size_t at = find_in_any_case(value, attribute);
  if (at == npos) return false;
  text = without_blanks(value.substr(at + attribute.size()));
  if (!text.empty() && text.front() == '"') text.remove_prefix(1);
  return true;
}

// The value of a name parameter in the header as received: up to the next quote, or unquoted up to
// the next parameter.
std::string_view raw_name(std::string_view field, size_t at) {
  const std::string_view text = without_blanks(field.substr(at));
  if (!text.empty() && text.front() == '"') return text.substr(1, text.find('"', 1) - 1);
  return text.substr(0, text.find(';'));
}

void set_file_name(tav_eml_mlutl_mail_part& part, std::string_view raw) {
  std::string decoded;
  TAV_EML_CHAR_SET char_set = TAV_EML_CS_NONE;
  append_decoded(raw, decoded, char_set);
  UtlString name;
  store_value(name, decoded);
  name.TrimTop();
  name.TrimBottom();
  const std::string_view text = text_of(name);
  const size_t dot = text.rfind('.');
  store_value(part.m_cFileExtension, dot == npos ? std::string_view() : text.substr(dot + 1));
  part.m_cFIleName = std::move(name);
}

bool has_name(std::string_view value, const name_attribute& attribute) {
  return find_in_any_case(value, attribute.plain) != npos ||
         find_in_any_case(value, attribute.extended) != npos;
}

// Takes the name from `value`, the decoded field; the plain form is then read in `received`, the
// field as received.
void take_name(const char* operation, tav_eml_mlutl_mail_part& part, std::string_view value,
               const name_attribute& attribute, std::string_view received) {
  if (find_in_any_case(value, attribute.plain) != npos) {
    const size_t at = received.find(attribute.plain);
    if (at == npos) {
      TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_boundary::%s():No [name=] attribute\n", operation);
      return;
    }
    const bool is_decoded = guarded(operation, false, [&] {
      set_file_name(part, raw_name(received, at + attribute.plain.size()));
      return true;
    });
    if (!is_decoded) {
      TAV_EML_LOG_ERROR(
          "<Error> tav_eml_mlutl_receive::%s():tav_eml_mlutl_mime_utility::inline_decode return "
          "FALSE\n",
          operation);
    }
    return;
  }
  const size_t at = find_in_any_case(value, attribute.extended);
  if (at == npos) return;
  std::string text(value.substr(at + attribute.extended.size()));
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

void open_boundary(tav_eml_mlutl_mail& mail, std::string_view value) {
  std::string_view text;
  if (!find_parameter(value, "boundary=", text)) return;
  const std::string boundary(text.substr(0, std::min(text.find('"'), text.find("\r\n"))));
  if (boundary.size() > kMaxBoundary || mail.m_nBoundaryLevel >= kMaxLevels) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():boundary not opened at level %d\n",
                      "AnalyzeContentType", static_cast<int>(mail.m_nBoundaryLevel));
    return;
  }
  // Without the level its parts would be mixed up.
  if (mail.up_boundary_level(boundary.c_str()) == 0) throw std::bad_alloc();
}

void take_content_type(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                       std::string_view value) {
  store_value(part.m_cContentType, value);
  store_value(part.m_cMediaType, value.substr(0, value.find(';')));
  part.m_nContentType =
      tav_eml_mlutl_mail_type::test_content_type(value.empty() ? "" : value.data());
  open_boundary(mail, value);
  std::string_view text;
  if (find_parameter(value, "charset=", text)) {
    part.m_nCharSet = tav_eml_mlutl_mail_type::test_char_set(text.empty() ? "" : text.data());
  }
}

void take_content_disposition(tav_eml_mlutl_mail_part& part, std::string_view value) {
  part.m_nContentDisposition =
      tav_eml_mlutl_mail_type::test_content_disposition(value.empty() ? "" : value.data());
}

void take_transfer_encoding(tav_eml_mlutl_mail_part& part, std::string_view value) {
  store_value(part.m_cTransferEncoding, value);
  part.m_nTransferEncoding =
      tav_eml_mlutl_mail_type::test_transfer_encoding(text_of(part.m_cTransferEncoding));
}

void take_type_name(const tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                    std::string_view value) {
  const tav_eml_mlutl_mail_part* named = &part == &mail ? &mail : mail.m_pPart;
  take_name("AnalyzeContentType", part, value, kTypeName,
            named != nullptr ? text_of(named->m_cHeader1) : "");
}

void take_disposition_name(tav_eml_mlutl_mail_part& part, std::string_view value) {
  take_name("AnalyzeContentDisposition", part, value, kDispositionName, text_of(part.m_cHeader2));
}

bool has_type_name(std::string_view value) { return has_name(value, kTypeName); }

bool has_disposition_name(std::string_view value) { return has_name(value, kDispositionName); }

void tav_eml_mlutl_receive::AnalyzeContentType(tav_eml_mlutl_mail& mail,
                                               tav_eml_mlutl_mail_part& part, UtlString& value) {
  guarded("AnalyzeContentType", [&] {
    take_content_type(mail, part, text_of(value));
    take_type_name(mail, part, text_of(value));
  });
}

TAV_EML_TRANSFER_ENCODING tav_eml_mlutl_receive::AnalyzeTransferEncoding(
    tav_eml_mlutl_mail_part& part, UtlString& value) {
  return guarded("AnalyzeTransferEncoding", TAV_EML_TE_UNKNOWN, [&] {
    take_transfer_encoding(part, text_of(value));
    return part.m_nTransferEncoding;
  });
}

void tav_eml_mlutl_receive::AnalyzeContentDisposition(tav_eml_mlutl_mail_part& part,
                                                      UtlString& value) {
  guarded("AnalyzeContentDisposition", [&] {
    take_content_disposition(part, text_of(value));
    take_disposition_name(part, text_of(value));
  });
}

}  // namespace quorvelmida
