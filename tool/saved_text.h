// saved_text.h - a saved text for a person: as UTF-8, whatever the sender chose.

#ifndef SAVED_TEXT_H
#define SAVED_TEXT_H

#include <string>

namespace tavmail {

// Converts the file `name` in `folder`, which is written anew; memory does not grow with it. True
// when it is another file now: false for a text that is UTF-8 or ASCII, in a character set that is
// not known, or with bytes that are not of it, which stays as it is. Without a `char_set` only the
// escape sequences of ISO-2022-JP tell it. `has_mark`: it is to begin with a byte order mark, which
// counts more than a character set that an HTML text names itself. Throws a problem.
bool save_as_utf8(const std::string& folder, const std::string& name, const std::string& char_set,
                  bool has_mark);

}  // namespace tavmail

#endif
