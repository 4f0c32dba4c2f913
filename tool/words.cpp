#include "words.h"

#include <algorithm>

#include "clb.h"

namespace tavmail {

bool has_control(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char ch) { return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F; });
}

bool is_same_word(std::string_view word, std::string_view other) {
  return word.size() == other.size() &&
         clb_CompStrCaseN(word.data(), other.data(), word.size()) == 0;
}

bool begins_with(std::string_view text, std::string_view start) {
  return is_same_word(text.substr(0, start.size()), start);
}

std::string lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
  });
  return text;
}

std::string trimmed(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return std::string(text);
}

std::string_view without_line_end(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

std::string joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
  return text;
}

}  // namespace tavmail
