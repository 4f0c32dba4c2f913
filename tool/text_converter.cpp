#include "text_converter.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

class iconv_converter : public text_converter {
 public:
  explicit iconv_converter(const std::string& from) : m_handle(iconv_open("UTF-8", from.c_str())) {}
  iconv_converter(const iconv_converter&) = delete;
  iconv_converter& operator=(const iconv_converter&) = delete;
  ~iconv_converter() override {
    if (is_open()) iconv_close(m_handle);
  }

  bool is_open() const { return m_handle != reinterpret_cast<iconv_t>(-1); }

  bool convert(const std::string& piece, bool is_last, std::string& text) override {
    m_rest += piece;
    std::string out(m_rest.size() * 4 + 16, '\0');
    char* from = m_rest.data();
    char* to = out.data();
    size_t left = m_rest.size();
    size_t room = out.size();
    const bool is_whole = iconv(m_handle, &from, &left, &to, &room) != static_cast<size_t>(-1);
    // A character may go on in the next piece.
    if (!is_whole && (errno != EINVAL || is_last)) return false;
    text.append(out.data(), static_cast<size_t>(to - out.data()));
    m_rest.erase(0, m_rest.size() - left);
    return true;
  }

 private:
  iconv_t m_handle;
  std::string m_rest;
};

// The library's own conversion, which knows the vendor characters of Japanese mail.
class japanese_converter : public text_converter {
 public:
  explicit japanese_converter(TAV_EML_CHAR_SET set) : m_set(set) {}

  bool convert(const std::string& piece, bool is_last, std::string& text) override {
    m_rest += piece;
    const size_t length = is_last ? m_rest.size() : end_of_characters();
    std::string out(length * 4 + 16, '\0');
    const TAV_EML_ENCODED_STRING source = {m_set, m_rest.data(), static_cast<int32_t>(length)};
    TAV_EML_ENCODED_STRING result = {TAV_EML_CS_UTF_8, out.data(),
                                     static_cast<int32_t>(out.size())};
    int consumed = 0;
    if (length > 0 &&
        (tav_eml_mlutl_mail_type::convert_encoded_string(source, result, consumed) != 0 ||
         static_cast<size_t>(consumed) != length)) {
      return false;
    }
    if (length > 0) text.append(out.data(), static_cast<size_t>(result.length));
    m_rest.erase(0, length);
    return m_rest.size() < kMostHeld;
  }

 private:
  static constexpr size_t kMostHeld = size_t{64} << 10;

  // Where what has come can be cut.
  size_t end_of_characters() const {
    return m_set == TAV_EML_CS_SHIFT_JIS ? end_of_shift_jis() : end_of_jis();
  }

  size_t end_of_shift_jis() const {
    size_t at = 0;
    while (at < m_rest.size()) {
      const auto byte = static_cast<unsigned char>(m_rest[at]);
      const bool is_first = (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC);
      if (is_first && at + 1 == m_rest.size()) break;
      at += is_first ? 2 : 1;
    }
    return at;
  }

  // After a line: each begins and ends in ASCII (RFC 1468). Without one, where an escape sequence
  // begins.
  size_t end_of_jis() const {
    const size_t feed = m_rest.rfind('\n');
    if (feed != std::string::npos) return feed + 1;
    const size_t escape = m_rest.rfind("\x1B");
    return escape != std::string::npos ? escape : m_rest.size();
  }

  const TAV_EML_CHAR_SET m_set;
  std::string m_rest;
};

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

}  // namespace

std::unique_ptr<text_converter> make_text_converter(const std::string& set) {
  if (set.compare(0, 11, "iso-2022-jp") == 0) {
    return std::make_unique<japanese_converter>(TAV_EML_CS_ISO_2022_JP);
  }
  if (is_shift_jis(set)) return std::make_unique<japanese_converter>(TAV_EML_CS_SHIFT_JIS);
  if (!is_known(set)) return nullptr;
  auto converter = std::make_unique<iconv_converter>(set == "gb2312" ? "GB18030" : set);
  if (!converter->is_open()) return nullptr;
  return converter;
}

}  // namespace tavmail
