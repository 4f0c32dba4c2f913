// taveml_easy_text.h - conveniences for applications: result codes and texts. See taveml_easy.h.

#ifndef TAVEML_EASY_TEXT_H
#define TAVEML_EASY_TEXT_H

#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "quorvelmida/tav_eml_mlutl_mail_type.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_util.h"
#include "utl_os.h"
#include "utl_string.h"

namespace quorvelmida {
namespace easy {

namespace detail {

struct result_row {
  TAV_EML_RESULT result;
  const char* name;
  const char* advice;
};

// The row of a code; an empty one for any other value.
inline const result_row& row_of(TAV_EML_RESULT result) {
#define TAVEML_EASY_ROW(code, advice) \
  { code, #code, advice }
  static const result_row kRows[] = {
      TAVEML_EASY_ROW(TAV_EML_OK, ""),
      TAVEML_EASY_ROW(TAV_EML_ERR_PARAM,
                      "a value cannot be used: check server name, TLS mode, addresses and texts"),
      TAVEML_EASY_ROW(TAV_EML_ERR_AUTH, "the server refused the login: check user and password"),
      TAVEML_EASY_ROW(TAV_EML_ERR_NO_RCPT, "there is no recipient"),
      TAVEML_EASY_ROW(TAV_EML_ERR_NO_FROM, "there is no sender"),
      TAVEML_EASY_ROW(TAV_EML_ERR_CONNECT,
                      "the server refused the connection: check server and port"),
      TAVEML_EASY_ROW(TAV_EML_ERR_CONNECT_TIMEOUT,
                      "the server does not answer: check address and firewall"),
      TAVEML_EASY_ROW(TAV_EML_ERR_TRANSFER, "the connection broke: try again"),
      TAVEML_EASY_ROW(TAV_EML_ERR_TRANSFER_TIMEOUT,
                      "the server fell silent: try again; if it never spoke, check the TLS mode"),
      TAVEML_EASY_ROW(TAV_EML_ERR_SIZE_LIMIT, "the message is larger than the size limit"),
      TAVEML_EASY_ROW(TAV_EML_ERR_REPLY,
                      "the server refused, or its reply makes no sense: see the log for the step"),
      TAVEML_EASY_ROW(TAV_EML_ERR_REPLY_TEMPORARY,
                      "the server refused for now: try again in some minutes"),
      TAVEML_EASY_ROW(TAV_EML_ERR_AUTH_METHOD,
                      "no login method in common: the server may require TLS first"),
      TAVEML_EASY_ROW(TAV_EML_ERR_TLS_INIT, "TLS could not be set up: see the log"),
      TAVEML_EASY_ROW(TAV_EML_ERR_TLS_INIT_RESOURCE,
                      "TLS could not be set up: check trust store and memory"),
      TAVEML_EASY_ROW(TAV_EML_ERR_TLS_CONNECT,
                      "the TLS handshake failed: check TLS mode, port and TLS versions"),
      TAVEML_EASY_ROW(TAV_EML_ERR_TLS_CONNECT_REFUSED,
                      "the certificate was refused: check server name, clock and trust store"),
      TAVEML_EASY_ROW(TAV_EML_ERR_NOT_CONNECTED, "there is no connection: connect, and list again"),
      TAVEML_EASY_ROW(TAV_EML_ERR_NO_MEMORY, "out of memory"),
      TAVEML_EASY_ROW(TAV_EML_ERR_SOCKET, "no socket available: are too many open?"),
      TAVEML_EASY_ROW(TAV_EML_ERR_UNKNOWN,
                      "the step failed: see the log; often a wrong order of calls"),
  };
#undef TAVEML_EASY_ROW
  static const result_row kNone = {TAV_EML_OK, "", ""};
  for (const result_row& row : kRows) {
    if (row.result == result) return row;
  }
  return kNone;
}

}  // namespace detail

// The name of a code, "TAV_EML_ERR_AUTH"; "" for any other value.
inline const char* result_name(TAV_EML_RESULT result) { return detail::row_of(result).name; }

// What a code means and what to do, in a line for the person who sets up an account; "" for
// TAV_EML_OK and any other value.
inline const char* result_advice(TAV_EML_RESULT result) { return detail::row_of(result).advice; }

// The text; "" for a UtlString that was never set.
inline std::string text_of(const UtlString& text) {
  return text.GetString() != nullptr ? text.GetString() : "";
}

namespace detail {

// The length of the UTF-8 character (RFC 3629) at `at`, and its value; 0 if there is none.
inline size_t read_character(const std::string& text, size_t at, uint32_t& character) {
  static const uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const auto first = static_cast<unsigned char>(text[at]);
  const size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  const bool is_first = first < 0x80 || (first >= 0xC2 && first < 0xF5);
  if (!is_first || length > text.size() - at) return 0;
  character = length == 1 ? first : first & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    character = (character << 6) | (next & 0x3FU);
  }
  const bool is_surrogate = character >= 0xD800 && character <= 0xDFFF;
  return character >= kLeast[length] && character <= 0x10FFFF && !is_surrogate ? length : 0;
}

inline bool is_utf8(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    uint32_t character = 0;
    const size_t length = read_character(text, at, character);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

// False if not all of `bytes` is text of the character set.
inline bool convert(const std::string& bytes, TAV_EML_CHAR_SET set, std::string& text) {
  if (bytes.size() > INT32_MAX / 4 - 16) return false;
  std::string out(bytes.size() * 4 + 16, '\0');
  const TAV_EML_ENCODED_STRING source = {set, const_cast<char*>(bytes.data()),
                                         static_cast<int32_t>(bytes.size())};
  TAV_EML_ENCODED_STRING target = {TAV_EML_CS_UTF_8, &out[0], static_cast<int32_t>(out.size())};
  int consumed = 0;
  if (tav_eml_mlutl_mail_type::convert_encoded_string(source, target, consumed) != 0 ||
      static_cast<size_t>(consumed) != bytes.size()) {
    return false;
  }
  out.resize(static_cast<size_t>(target.length));
  text.swap(out);
  return true;
}

// Every byte is a character of ISO 8859-1.
inline std::string from_latin1(const std::string& bytes) {
  std::string text;
  for (const char ch : bytes) {
    const auto byte = static_cast<unsigned char>(ch);
    if (byte >= 0x80) text += static_cast<char>(0xC0 | (byte >> 6));
    text += static_cast<char>(byte < 0x80 ? byte : 0x80 | (byte & 0x3F));
  }
  return text;
}

}  // namespace detail

// A received text as UTF-8. `set` is the m_nCharSet of the mail or part that the text is from; the
// sender may have written single texts in another one. So the bytes decide where they can:
// ISO-2022-JP shows by its escape sequences and UTF-8 by its form. Anything else is read in `set`,
// or as Shift_JIS, or as ISO 8859-1. Never fails. Pass the whole text, not one block of it.
inline std::string to_utf8(const std::string& bytes, TAV_EML_CHAR_SET set) {
  std::string text;
  const bool has_escape =
      bytes.find("\x1B$") != std::string::npos || bytes.find("\x1B(") != std::string::npos;
  if (has_escape && detail::convert(bytes, TAV_EML_CS_ISO_2022_JP, text)) return text;
  if (detail::is_utf8(bytes)) return bytes;
  const bool is_named = set >= TAV_EML_CS_ISO_8859_1 && set < TAV_EML_CS_UTF_8;
  if (is_named && detail::convert(bytes, set, text)) return text;
  if (detail::convert(bytes, TAV_EML_CS_SHIFT_JIS, text)) return text;
  return detail::from_latin1(bytes);
}

inline std::string to_utf8(const UtlString& bytes, TAV_EML_CHAR_SET set) {
  return to_utf8(text_of(bytes), set);
}

namespace detail {

inline bool is_control(uint32_t character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0);
}

// Characters that steer the direction or show nothing: a name could hide its extension with them.
inline bool is_deceptive(uint32_t character) {
  return (character >= 0x200B && character <= 0x200F) ||
         (character >= 0x202A && character <= 0x202E) ||
         (character >= 0x2060 && character <= 0x206F) || character == 0xFEFF;
}

// Names that other systems take for devices, whatever the extension.
inline bool is_device(const std::string& name) {
  std::string stem = name.substr(0, name.find_first_of(". "));
  for (char& ch : stem) ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
  if (stem == "con" || stem == "prn" || stem == "aux" || stem == "nul") return true;
  return stem.size() == 4 && (stem.compare(0, 3, "com") == 0 || stem.compare(0, 3, "lpt") == 0) &&
         stem[3] >= '0' && stem[3] <= '9';
}

// Cuts a name at a character, before its extension. File systems take 255 bytes.
inline std::string shortened(const std::string& name) {
  const size_t longest = 200;
  if (name.size() <= longest) return name;
  const size_t dot = name.rfind('.');
  const bool has_extension = dot != std::string::npos && name.size() - dot <= 16;
  const std::string extension = has_extension ? name.substr(dot) : std::string();
  size_t end = longest - extension.size();
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
  return name.substr(0, end) + extension;
}

}  // namespace detail

// A received text (UTF-8, see to_utf8) as one line for a terminal or a log: a blank for each
// control character, line ends included, and for each that steers the direction or shows nothing.
inline std::string one_line(const std::string& text) {
  std::string line;
  for (size_t at = 0; at < text.size();) {
    uint32_t character = 0;
    const size_t length = detail::read_character(text, at, character);
    const bool is_shown =
        length > 0 && !detail::is_control(character) && !detail::is_deceptive(character);
    line += is_shown ? text.substr(at, length) : " ";
    at += length > 0 ? length : 1;
  }
  return line;
}

// Makes a name from a message (UTF-8, see to_utf8) safe to create in a folder: one path component
// of at most 200 bytes, without control characters, without characters that hide an extension, and
// not taken for an option or a device. `otherwise` if nothing is left. Two parts may have the same
// name: do not overwrite.
inline std::string safe_file_name(const std::string& name, const std::string& otherwise) {
  const std::string base = name.substr(name.find_last_of("/\\") + 1);
  std::string safe;
  for (size_t at = 0; at < base.size();) {
    uint32_t character = 0;
    const size_t length = detail::read_character(base, at, character);
    if (length == 0 || std::string("<>:\"|?*").find(base[at]) != std::string::npos) {
      safe += '_';
    } else if (!detail::is_control(character) && !detail::is_deceptive(character)) {
      safe.append(base, at, length);
    }
    at += length > 0 ? length : 1;
  }
  safe.erase(0, safe.find_first_not_of(" ."));
  safe.erase(safe.find_last_not_of(" .") + 1);
  if (!safe.empty() && (safe[0] == '-' || detail::is_device(safe))) safe.insert(0, "_");
  return safe.empty() ? otherwise : detail::shortened(safe);
}

// A file name (UTF-8) as m_cFIleName of an outgoing part, which is written between quotes as it is:
// a quote or backslash is escaped, or replaced where the name is not ASCII and so becomes an
// encoded word, which has no escapes.
inline std::string quotable_file_name(const std::string& name) {
  bool is_ascii = true;
  for (const char ch : name) is_ascii = is_ascii && static_cast<unsigned char>(ch) < 0x80;
  std::string quotable;
  for (const char ch : name) {
    const bool is_special = ch == '"' || ch == '\\';
    if (is_special && is_ascii) quotable += '\\';
    quotable += !is_special || is_ascii ? ch : ch == '"' ? '\'' : '_';
  }
  return quotable;
}

// A new value for m_cBoundaryString. It occurs in no data in base64 or quoted-printable ("=_"), and
// nobody can foresee it. Throws what std::random_device throws if there are no random numbers.
inline std::string new_boundary() {
  std::random_device random;
  std::string boundary = "=_tav_";
  for (int i = 0; i < 32; ++i) boundary += "0123456789abcdef"[random() & 15U];
  return boundary;
}

// The current time as the value of m_cDate; "" if the clock fails.
inline std::string date_now() {
  char date[64] = "";
  tav_eml_smtp_util::get_date(1, sizeof date, date);
  return date;
}

// "NAME <ADDRESS>" for the address members of a mail, with the name as encoded words of `set`. ""
// if the set lacks a character of the name, or without memory.
inline std::string named_address(const std::string& name, const std::string& address,
                                 TAV_EML_CHAR_SET set) {
  const int room = 45;  // of a line after the longest label, "Disposition-Notification-To: "
  char* words = nullptr;
  long length = 0;
  if (tav_eml_mlutl_mime_utility::ToMimeEncode(set, name.data(), static_cast<long>(name.size()),
                                               words, length, room) == 0) {
    return std::string();
  }
  const std::unique_ptr<char, void (*)(char*)> owner(words,
                                                     [](char* text) { UtlOS::MemFree(text); });
  return std::string(words, static_cast<size_t>(length)) + " <" + address + ">";
}

}  // namespace easy
}  // namespace quorvelmida

#endif
