// delimiter.h - the lines between the parts of a multipart (RFC 2046 5.1.1).

#ifndef DELIMITER_H
#define DELIMITER_H

#include <string_view>

#include "quorvelmida/tav_eml_mlutl_mail.h"

namespace quorvelmida {

// What a line is to the innermost open boundary.
enum class delimiter {
  none,
  part,       // another part begins
  close,      // the multipart ends
  misplaced,  // begins with "--" where no boundary is open
};

// Compares a line with the innermost boundary. The first delimiter of a level marks the level as
// begun, a later one completes the current part, and a close delimiter also closes the level.
delimiter pass_delimiter(std::string_view line, tav_eml_mlutl_mail& mail);

}  // namespace quorvelmida

#endif
