// text.h - small functions on text that both protocols need.

#ifndef MAILHOST_TEXT_H
#define MAILHOST_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mailhost {

inline bool begins(std::string_view text, std::string_view head) {
  return text.substr(0, head.size()) == head;
}

// ASCII letters only.
std::string upper_case(std::string_view text);

// The whole text as a decimal number without sign.
std::optional<uint64_t> number(std::string_view text);

// At each blank; two blanks in a row have an empty word between them.
std::vector<std::string> words_of(std::string_view text);

// Control characters and bytes that are not ASCII become dots.
std::string printable(std::string_view text);

// Every line ends in CR LF, also one that ended in a lone LF or not at all.
std::string with_crlf(std::string_view text);

std::string to_base64(std::string_view bytes);
// Nothing for a text that is not base64 (RFC 4648) with its padding.
std::optional<std::string> from_base64(std::string_view text);

}  // namespace mailhost

#endif
