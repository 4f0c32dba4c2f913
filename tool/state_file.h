// state_file.h - files that the tool keeps from run to run.

#ifndef STATE_FILE_H
#define STATE_FILE_H

#include <string>

namespace tavmail {

// $XDG_STATE_HOME/tavmail, which need not exist. Throws a problem, with `advice` when there is no
// home.
std::string state_folder(const std::string& advice);

// Makes the folder of a file. Throws a problem.
void make_folder_of(const std::string& path);

// A text as a part of a file's name: without "/", "," and "~", which mean something there.
std::string encoded_name(const std::string& text);

}  // namespace tavmail

#endif
