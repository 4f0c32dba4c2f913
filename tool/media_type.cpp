#include "media_type.h"

#include <algorithm>
#include <cstring>

#include "clb.h"
#include "input_file.h"
#include "message_text.h"
#include "mime_library.h"
#include "problem.h"
#include "words.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// What goes with mail from office devices. The system's table may lack it, or have another opinion.
constexpr struct {
  const char* extension;
  TAV_EML_CONTENT_TYPE type;
} kExtensions[] = {
    {"pdf", TAV_EML_CT_APPLICATION_PDF},   {"ps", TAV_EML_CT_APPLICATION_POSTSCRIPT},
    {"tif", TAV_EML_CT_IMAGE_TIFF},        {"tiff", TAV_EML_CT_IMAGE_TIFF},
    {"jpg", TAV_EML_CT_IMAGE_JPEG},        {"jpeg", TAV_EML_CT_IMAGE_JPEG},
    {"xps", TAV_EML_CT_APPLICATION_XPS},   {"oxps", TAV_EML_CT_APPLICATION_OXPS},
    {"docx", TAV_EML_CT_APPLICATION_DOCX}, {"xlsx", TAV_EML_CT_APPLICATION_XLSX},
    {"pptx", TAV_EML_CT_APPLICATION_PPTX}, {"txt", TAV_EML_CT_TEXT_PLAIN},
    {"html", TAV_EML_CT_TEXT_HTML},        {"htm", TAV_EML_CT_TEXT_HTML},
};

bool is_token(const std::string& text) {
  constexpr size_t kLongest = 127;  // RFC 6838 4.2
  return !text.empty() && text.size() <= kLongest &&
         std::all_of(text.begin(), text.end(), [](char ch) {
           return ch > ' ' && ch <= '~' && std::strchr("()<>@,;:\\\"/[]?=", ch) == nullptr;
         });
}

// Of "charset=utf-8", with quotes or without.
TAV_EML_CHAR_SET char_set_parameter(const std::string& parameter) {
  const size_t equals = std::min(parameter.find('='), parameter.size());
  std::string name = parameter.substr(std::min(equals + 1, parameter.size()));
  name.erase(std::remove(name.begin(), name.end(), '"'), name.end());
  const TAV_EML_CHAR_SET set = tav_eml_mlutl_mail_type::test_char_set(name.c_str());
  if (is_same_word(parameter.substr(0, equals), "charset") &&
      is_same_word(name, tav_eml_mlutl_mail_type::get_char_set(set))) {
    return set;
  }
  throw problem(EX_USAGE, "--content-type: \"" + parameter +
                              "\" cannot follow the type; charset= can, with us-ascii, utf-8, "
                              "iso-8859-1, iso-8859-2, iso-2022-jp or shift_jis");
}

// What the pieces of a text have in common so far.
struct text_kind {
  bool is_ascii = true;
  bool is_utf8 = true;
  bool has_escapes = false;  // of ISO-2022-JP

  void take(const std::string& lines) {
    is_ascii = is_ascii && tavmail::is_ascii(lines);
    is_utf8 = is_utf8 && tavmail::is_utf8(lines);
    has_escapes = has_escapes || lines.find("\x1B$") != std::string::npos;
  }

  TAV_EML_CHAR_SET char_set() const {
    if (is_ascii && has_escapes) return TAV_EML_CS_ISO_2022_JP;
    if (is_ascii) return TAV_EML_CS_US_ASCII;
    return is_utf8 ? TAV_EML_CS_UTF_8 : TAV_EML_CS_NONE;
  }
};

// Where a character may begin: never inside one of UTF-8.
size_t last_cut(const std::string& text) {
  size_t cut = text.size();
  for (int back = 0; back < 4 && cut > 0; ++back) {
    if ((static_cast<unsigned char>(text[--cut]) & 0xC0) != 0x80) return cut;
  }
  return text.size();
}

}  // namespace

file_type parsed_media_type(const std::string& text) {
  const size_t end = std::min(text.find(';'), text.size());
  file_type found{trimmed(text.substr(0, end)), TAV_EML_CS_NONE};
  const size_t slash = std::min(found.type.find('/'), found.type.size());
  if (slash == found.type.size() || !is_token(found.type.substr(0, slash)) ||
      !is_token(found.type.substr(slash + 1))) {
    throw problem(EX_USAGE, "--content-type " + text +
                                " is no type; expected TYPE/SUBTYPE, such "
                                "as application/pdf or image/png");
  }
  if (is_same_word(found.type.substr(0, slash), "multipart")) {
    throw problem(EX_USAGE, "--content-type " + text + " cannot be the type of a file");
  }
  if (end < text.size()) found.char_set = char_set_parameter(trimmed(text.substr(end + 1)));
  return found;
}

std::string media_type_of_name(const std::string& name) {
  const auto dot = name.rfind('.');
  const std::string extension = dot != std::string::npos ? name.substr(dot + 1) : "";
  for (const auto& known : kExtensions) {
    if (is_same_word(extension, known.extension)) {
      return tav_eml_mlutl_mail_type::get_content_type(known.type);
    }
  }
  return mime_library::loaded().media_type(name);
}

TAV_EML_CHAR_SET char_set_of_file(const std::string& path) {
  constexpr size_t kPiece = size_t{64} << 10;
  input_file file(path, "attachment");
  if (!S_ISREG(file.status().st_mode)) return TAV_EML_CS_NONE;
  text_kind kind;
  std::string piece;
  size_t count = 0;
  do {
    const size_t held = piece.size();
    piece.resize(held + kPiece);
    count = file.read(&piece[held], kPiece);
    piece.resize(held + count);
    const size_t cut = count > 0 ? last_cut(piece) : piece.size();
    kind.take(piece.substr(0, cut));
    piece.erase(0, cut);
  } while (count > 0 && (kind.is_ascii || kind.is_utf8));
  return kind.char_set();
}

}  // namespace tavmail
