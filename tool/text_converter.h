// text_converter.h - texts in a character set of a mail become UTF-8, piece by piece.

#ifndef TEXT_CONVERTER_H
#define TEXT_CONVERTER_H

#include <memory>
#include <string>

namespace tavmail {

class text_converter {
 public:
  virtual ~text_converter() = default;

  // Adds the next piece to what a piece before has left over, and to `text` as UTF-8. False for
  // bytes that are not of the character set; then nothing more is converted.
  virtual bool convert(const std::string& piece, bool is_last, std::string& text) = 0;
};

// For a name in lower case. Null for one that is not known, and for UTF-8 and ASCII.
std::unique_ptr<text_converter> make_text_converter(const std::string& char_set);

}  // namespace tavmail

#endif
