// state_file.h - files that the tool keeps from run to run.

#ifndef STATE_FILE_H
#define STATE_FILE_H

#include <string>

namespace tavmail {

// $XDG_STATE_HOME/tavmail, which is made. Throws a problem, with `advice` when there is no home.
std::string state_folder(const std::string& advice);

// A text as a part of a file's name: without "/", "," and "~", which mean something there.
std::string encoded_name(const std::string& text);

}  // namespace tavmail

#endif
