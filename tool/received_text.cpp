#include "received_text.h"

#include <algorithm>
#include <cwchar>
#include <memory>
#include <utility>

#include "dialogue_view.h"
#include "message_text.h"
#include "text_converter.h"
#include "words.h"

namespace tavmail {

namespace {

// `set` is in lower case.
bool convert_named(const std::string& set, const std::string& bytes, std::string& text) {
  const std::unique_ptr<text_converter> converter = make_text_converter(set);
  std::string converted;
  if (converter == nullptr || !converter->convert(bytes, true, converted)) return false;
  text = std::move(converted);
  return true;
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

std::string header_text(const std::string& bytes, const std::string& hint) {
  std::string text;
  if (has_jis_escape(bytes) && convert_named("iso-2022-jp", bytes, text)) return text;
  if (is_utf8(bytes)) return bytes;
  if (convert_named(lower_case(hint), bytes, text)) return text;
  if (convert_named("shift_jis", bytes, text)) return text;
  convert_named("iso-8859-1", bytes, text);  // every byte is a character
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
