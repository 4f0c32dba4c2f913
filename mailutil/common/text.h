// text.h - small tests on texts. ASCII only, whatever the locale.

#ifndef TEXT_H
#define TEXT_H

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

#include "clb.h"
#include "utl_string.h"

namespace quorvelmida {

inline bool is_blank(char ch) { return ch == ' ' || ch == '\t'; }

inline bool is_control(char ch) {
  const unsigned char byte = static_cast<unsigned char>(ch);
  return byte < 0x20 || byte == 0x7F;
}

inline char to_lower(char ch) { return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + 32) : ch; }

inline bool ends_line(std::string_view text) {
  return text.size() >= 2 && text.substr(text.size() - 2) == "\r\n";
}

inline bool begins_with(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

// The same in any case.
inline bool begins_with_word(std::string_view text, std::string_view word) {
  return text.size() >= word.size() && clb_CompStrCaseN(text.data(), word.data(), word.size()) == 0;
}

// A character of a peer's text, safe for a log line.
inline char printable(char ch) { return is_control(ch) ? ' ' : ch; }

// The text of a string, never null.
inline const char* text_of(const UtlString& string) {
  return string.GetString() != nullptr ? string.GetString() : "";
}

// True if the text can be part of a command line.
inline bool has_no_control(const char* text) {
  for (; *text != '\0'; ++text) {
    if (is_control(*text)) return false;
  }
  return true;
}

// False, after a log line, for a null pointer with a length above 0.
bool is_readable(const char* operation, const void* bytes, int64_t length);

// Concatenates the texts.
std::string joined(std::initializer_list<std::string_view> texts);

// True if every line break in the text is a fold (RFC 5322 2.2.3).
bool is_header_value(const char* text);

}  // namespace quorvelmida

#endif
