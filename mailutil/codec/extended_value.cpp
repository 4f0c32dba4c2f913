// Extended parameter values (RFC 2231) and JIS code conversion.
//
//   extended-value = [charset] "'" [language] "'" extended-other-values

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"

namespace quorvelmida {

namespace {

char to_upper(char ch) { return ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch; }

// The text after charset and language; the whole text if they are missing.
const char* skip_charset_and_language(const char* value) {
  const char* first = std::strchr(value, '\'');
  const char* second = first != nullptr ? std::strchr(first + 1, '\'') : nullptr;
  return second != nullptr ? second + 1 : value;
}

// The text after the last "." of a name, if there is text on both sides of it.
const char* extension_of(const char* name) {
  const char* dot = std::strrchr(name, '.');
  return dot != nullptr && dot > name && dot[1] != '\0' ? dot + 1 : nullptr;
}

}  // namespace

char tav_eml_mlutl_mime_utility::escape_decode(char ch) {
  if (ch >= '0' && ch <= '9') return static_cast<char>(ch - '0');
  if (ch >= 'A' && ch <= 'F') return static_cast<char>(ch - 'A' + 10);
  return 0;
}

void tav_eml_mlutl_mime_utility::escape_string_decode(const char* src, int len, char* dst) {
  if (!is_readable("escape_string_decode", src, len) ||
      !is_readable("escape_string_decode", dst, len)) {
    return;
  }
  for (int i = 0; i < len && src[i] != '\0';) {
    if (src[i] != '%') {
      *dst++ = src[i++];
      continue;
    }
    if (src[i + 1] == '\0' || src[i + 2] == '\0') return;  // the text ends inside an escape
    const char high = escape_decode(to_upper(src[i + 1]));
    const char low = escape_decode(to_upper(src[i + 2]));
    *dst++ = static_cast<char>(high * 16 + low);
    i += 3;
  }
}

void tav_eml_mlutl_mime_utility::decode_and_set_escape_string(tav_eml_mlutl_mail_part& part,
                                                              char* value) {
  if (value == nullptr) {
    TAV_EML_LOG_ERROR(
        "tav_eml_mlutl_mime_utility::decode_and_set_escape_string() was passed in a NULL "
        "pointer\n");
    return;
  }
  while (is_blank(*value)) ++value;
  const char* text = skip_charset_and_language(value);
  const size_t length = std::strcspn(text, ";");
  // A copy that ends in a NUL: escapes must not be read past the value's end.
  const std::unique_ptr<char[]> decoded(new (std::nothrow) char[length + 1]());
  const std::unique_ptr<char[]> source(new (std::nothrow) char[length + 1]());
  if (!decoded || !source) {
    TAV_EML_LOG_ERROR("tav_eml_mlutl_mime_utility::decode_and_set_escape_string() new failed\n");
    return;
  }
  std::memcpy(source.get(), text, length);
  escape_string_decode(source.get(), static_cast<int>(length), decoded.get());

  guarded("decode_and_set_escape_string", [&] {
    UtlString name(decoded.get());
    name.TrimTop();
    name.TrimBottom();
    if (const char* extension = extension_of(decoded.get())) {
      part.m_cFileExtension = UtlString(extension);
    }
    part.m_cFIleName = std::move(name);
  });
}

unsigned short tav_eml_mlutl_mime_utility::CodeConvertJis2Sjis(unsigned short jis) {
  const unsigned int lo = jis & 0xFFU;
  unsigned int hi = static_cast<unsigned int>(jis) >> 8;
  unsigned int trail;
  if (lo >= 96) {
    trail = lo + 32;
  } else if (lo < 33) {
    return 0;
  } else {
    trail = lo + 31;
  }
  if (hi % 2 == 0) {
    if (lo > 127) return 0;
    trail = lo + 126;
    hi -= 1;
  }
  const unsigned int t = ((hi - 31) >> 1) & 0x7FFFU;
  const unsigned int lead = t < 32 ? t + 128 : t + 192;
  const bool is_lead = (lead >= 0x81 && lead <= 0x9F) || (lead >= 0xE0 && lead <= 0xEF);
  return is_lead ? static_cast<unsigned short>(lead * 256 + trail) : static_cast<unsigned short>(0);
}

int tav_eml_mlutl_mime_utility::jis_2_sjis(const char*, long, char*&, long&) { return 1; }

}  // namespace quorvelmida
