// message_text.h - texts as the library wants them: checked, converted where it does not do that
// itself, and with header values that need it encoded.

#ifndef MESSAGE_TEXT_H
#define MESSAGE_TEXT_H

#include <string>
#include <vector>

#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace tavmail {

bool is_ascii(const std::string& text);
bool is_utf8(const std::string& text);
// True when a byte of ASCII is none that is seen, among them a line end.
bool has_control(const std::string& text);
// True when the character set has every character of a UTF-8 text.
bool can_express(const std::string& text, quorvelmida::TAV_EML_CHAR_SET char_set);

// Throws a problem when the text cannot be a header value in the character set. `what` names it.
void check_header_text(const std::string& what, const std::string& text,
                       quorvelmida::TAV_EML_CHAR_SET char_set);
// An address list: every address checked, display names encoded. Throws a problem.
std::string encoded_addresses(const std::string& what, const std::string& list,
                              quorvelmida::TAV_EML_CHAR_SET char_set);
int count_addresses(const std::string& list);
// The addresses of a list without display names, as they stand there.
std::vector<std::string> bare_addresses(const std::string& list);

// Text with every line end CR LF (RFC 2046 4.1.1).
std::string canonical_lines(const std::string& text);
// The end of the piece of a UTF-8 text that begins at `at`: after a line if possible, never inside
// a character.
size_t end_of_piece(const std::string& text, size_t at);
// A UTF-8 text in the character set, which can express it.
std::string in_char_set(const std::string& text, quorvelmida::TAV_EML_CHAR_SET char_set);

}  // namespace tavmail

#endif
