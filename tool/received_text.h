// received_text.h - texts of received mail for a person: as UTF-8, whatever the sender chose.

#ifndef RECEIVED_TEXT_H
#define RECEIVED_TEXT_H

#include <string>

namespace tavmail {

// A header value of which only the bytes are known. ISO-2022-JP shows by its escape sequences and
// UTF-8 by its form; anything else is read in the character set `hint` ("" for none).
std::string header_text(const std::string& bytes, const std::string& hint);

// Bytes in a named character set; read as above when they are not of it, or it is not known.
std::string text_in(const std::string& char_set, const std::string& bytes);

// The character set that the first encoded word of a header line, or its extended parameter
// (RFC 2231), names; "" when there is none.
std::string named_char_set(const std::string& header_line);

// Columns that the text takes on a terminal, and as much of it as fits into `columns`.
size_t display_width(const std::string& text);
std::string fit(const std::string& text, size_t columns);

// Lines of at most kColumns columns: the first begins with the label, the others below its end.
constexpr size_t kColumns = 79;
std::string wrapped(const std::string& label, const std::string& text);

}  // namespace tavmail

#endif
