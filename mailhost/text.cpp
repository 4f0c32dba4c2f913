#include "text.h"

#include <charconv>

namespace mailhost {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string upper_case(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return result;
}

std::optional<uint64_t> number(std::string_view text) {
  uint64_t value = 0;
  const char* const last = text.data() + text.size();
  const auto result = std::from_chars(text.data(), last, value);
  if (result.ec != std::errc() || result.ptr != last) return std::nullopt;
  return value;
}

std::vector<std::string> words_of(std::string_view text) {
  std::vector<std::string> words;
  for (size_t blank = 0; blank != std::string_view::npos;) {
    blank = text.find(' ');
    words.emplace_back(text.substr(0, blank));
    text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
  }
  return words;
}

std::string printable(std::string_view text) {
  std::string clean(text);
  for (char& c : clean) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7f) c = '.';
  }
  return clean;
}

std::string with_crlf(std::string_view text) {
  std::string lines;
  lines.reserve(text.size() + text.size() / 32 + 2);
  for (const char c : text) {
    if (c == '\n' && (lines.empty() || lines.back() != '\r')) lines += '\r';
    lines += c;
  }
  const bool is_open = !lines.empty() && lines.back() != '\n';
  return is_open ? lines + "\r\n" : lines;
}

std::string to_base64(std::string_view bytes) {
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    uint32_t bits = 0;
    for (size_t i = 0; i < 3; ++i)
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0u);
    for (size_t i = 0; i < 4; ++i)
      text += i <= group.size() ? alphabet[bits >> (18 - 6 * i) & 0x3f] : '=';
  }
  return text;
}

std::optional<std::string> from_base64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  while (padding < 2 && !text.empty() && text.back() == '=') {
    text.remove_suffix(1);
    ++padding;
  }
  std::string bytes;
  uint32_t bits = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const size_t digit = alphabet.find(text[i]);
    if (digit == std::string_view::npos) return std::nullopt;
    bits = bits << 6 | static_cast<uint32_t>(digit);
    if (i % 4 != 0) bytes += static_cast<char>(bits >> (6 - 2 * (i % 4)) & 0xff);
  }
  return bytes;
}

}  // namespace mailhost
