// qr_code.h - a text that a phone can read from a terminal.

#ifndef QR_CODE_H
#define QR_CODE_H

#include <string>

namespace tavmail {

// The text as a QR code in lines of block characters, dark on light. "" when it is too long, or
// wider than `columns`.
std::string qr_code(const std::string& text, int columns);

}  // namespace tavmail

#endif
