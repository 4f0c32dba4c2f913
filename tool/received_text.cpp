#include "received_text.h"

#include <iconv.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <vector>

#include "dialogue_view.h"
#include "message_text.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

class converter {
 public:
  explicit converter(const std::string& from) : m_handle(iconv_open("UTF-8", from.c_str())) {}
  converter(const converter&) = delete;
  converter& operator=(const converter&) = delete;
  ~converter() {
    if (is_open()) iconv_close(m_handle);
  }

  // False for bytes that are not of the character set.
  bool convert(const std::string& bytes, std::string& text) {
    if (!is_open()) return false;
    std::vector<char> out(bytes.size() * 4 + 16);
    char* from = const_cast<char*>(bytes.data());
    char* to = out.data();
    size_t left = bytes.size();
    size_t room = out.size();
    if (iconv(m_handle, &from, &left, &to, &room) == static_cast<size_t>(-1)) return false;
    text.assign(out.data(), static_cast<size_t>(to - out.data()));
    return true;
  }

 private:
  bool is_open() const { return m_handle != reinterpret_cast<iconv_t>(-1); }

  iconv_t m_handle;
};

// The library's own conversion, which knows the vendor characters of Japanese mail.
bool convert_japanese(TAV_EML_CHAR_SET set, const std::string& bytes, std::string& text) {
  std::vector<char> out(bytes.size() * 4 + 16);
  const TAV_EML_ENCODED_STRING source = {set, const_cast<char*>(bytes.data()),
                                         static_cast<int32_t>(bytes.size())};
  TAV_EML_ENCODED_STRING result = {TAV_EML_CS_UTF_8, out.data(), static_cast<int32_t>(out.size())};
  int consumed = 0;
  if (tav_eml_mlutl_mail_type::convert_encoded_string(source, result, consumed) != 0 ||
      static_cast<size_t>(consumed) != bytes.size()) {
    return false;
  }
  text.assign(out.data(), static_cast<size_t>(result.length));
  return true;
}

bool is_shift_jis(const std::string& name) {
  return name == "shift_jis" || name == "x-sjis" || name == "ms_kanji" || name == "cp932" ||
         name == "windows-31j";
}

// What the names of character sets that mail is written in begin with. No other name from a mail
// reaches iconv.
bool is_known(const std::string& name) {
  static constexpr const char* kNames[] = {
      "iso-8859-", "windows-125", "cp125", "cp85",  "cp86",   "cp437",    "ibm85",
      "koi8-",     "gb2312",      "gbk",   "gb180", "big5",   "euc-",     "ks_c_5601",
      "utf-16",    "tis-620",     "hz",    "cp949", "cp1361", "macintosh"};
  return std::any_of(std::begin(kNames), std::end(kNames), [&](const char* known) {
    return name.compare(0, std::strlen(known), known) == 0 && name.find('/') == std::string::npos;
  });
}

// `set` is in lower case.
bool convert_named(const std::string& set, const std::string& bytes, std::string& text) {
  if (set.compare(0, 11, "iso-2022-jp") == 0) {
    return convert_japanese(TAV_EML_CS_ISO_2022_JP, bytes, text);
  }
  if (is_shift_jis(set)) return convert_japanese(TAV_EML_CS_SHIFT_JIS, bytes, text);
  return is_known(set) && converter(set == "gb2312" ? "GB18030" : set).convert(bytes, text);
}

bool has_jis_escape(const std::string& bytes) {
  return bytes.find("\x1B$") != std::string::npos || bytes.find("\x1B(") != std::string::npos;
}

// Length of the UTF-8 character at `at`, and its value.
size_t take_character(const std::string& text, size_t at, char32_t& character) {
  const auto byte = static_cast<unsigned char>(text[at]);
  const size_t length = byte < 0x80 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
  character = byte < 0x80 ? byte : byte & (0xFFU >> (length + 1));
  for (size_t i = 1; i < length && at + i < text.size(); ++i) {
    character = (character << 6) | (static_cast<unsigned char>(text[at + i]) & 0x3FU);
  }
  return std::min(length, text.size() - at);
}

}  // namespace

std::string lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
  });
  return text;
}

std::string header_text(const std::string& bytes, const std::string& hint) {
  std::string text;
  if (has_jis_escape(bytes) && convert_japanese(TAV_EML_CS_ISO_2022_JP, bytes, text)) return text;
  if (is_utf8(bytes)) return bytes;
  if (convert_named(lower_case(hint), bytes, text)) return text;
  if (convert_japanese(TAV_EML_CS_SHIFT_JIS, bytes, text)) return text;
  converter("ISO-8859-1").convert(bytes, text);  // every byte is a character
  return text;
}

std::string text_in(const std::string& char_set, const std::string& bytes) {
  std::string text;
  return convert_named(lower_case(char_set), bytes, text) ? text : header_text(bytes, char_set);
}

std::string named_char_set(const std::string& line) {
  const size_t word = line.find("=?");
  if (word != std::string::npos) {
    const size_t end = line.find_first_of("?*", word + 2);
    if (end != std::string::npos) return line.substr(word + 2, end - word - 2);
  }
  const size_t extended = line.find("*=");
  if (extended != std::string::npos) {
    const size_t end = line.find('\'', extended);
    if (end != std::string::npos) return line.substr(extended + 2, end - extended - 2);
  }
  return {};
}

size_t display_width(const std::string& text) {
  size_t columns = 0;
  for (size_t at = 0; at < text.size();) {
    char32_t character = 0;
    at += take_character(text, at, character);
    const int width = wcwidth(static_cast<wchar_t>(character));
    columns += width > 0 ? static_cast<size_t>(width) : 0;
  }
  return columns;
}

std::string fit(const std::string& text, size_t columns) {
  if (display_width(text) <= columns) return text;
  std::string shown;
  for (size_t at = 0, used = 0; at < text.size();) {
    char32_t character = 0;
    const size_t length = take_character(text, at, character);
    const int width = std::max(0, wcwidth(static_cast<wchar_t>(character)));
    if (used + static_cast<size_t>(width) + 3 > columns) break;
    used += static_cast<size_t>(width);
    shown.append(text, at, length);
    at += length;
  }
  return shown + "...";
}

std::string wrapped(const std::string& label, const std::string& text) {
  const size_t room = kColumns - label.size();
  std::string out;
  std::string line;
  std::string lead = label;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find(' ', at), text.size());
    const std::string word = text.substr(at, end - at);
    if (!line.empty() && display_width(line) + 1 + display_width(word) > room) {
      out += lead + line + "\n";
      lead = std::string(label.size(), ' ');
      line.clear();
    }
    line += (line.empty() ? "" : " ") + fit(word, room);
    at = end + 1;
  }
  return out + lead + line + "\n";
}

}  // namespace tavmail
