// words.h - what options, headers and protocols alike ask of a text.

#ifndef WORDS_H
#define WORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace tavmail {

inline bool is_blank(char ch) { return ch == ' ' || ch == '\t'; }
bool has_control(std::string_view text);  // of ASCII, line ends among them

// Letters of ASCII are the same in both cases.
bool is_same_word(std::string_view word, std::string_view other);
bool begins_with(std::string_view text, std::string_view start);
std::string lower_case(std::string text);

std::string trimmed(std::string_view text);                // without blanks at its ends
std::string_view without_line_end(std::string_view line);  // which is LF or CR LF
std::string joined(const std::vector<std::string>& words, const char* between = " ");

}  // namespace tavmail

#endif
