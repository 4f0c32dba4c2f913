// home_folder.h - the folder of a user.

#ifndef HOME_FOLDER_H
#define HOME_FOLDER_H

#include <string>

namespace tavmail {

// "" when there is none; without a name that of the one who runs this.
std::string home_of(const std::string& user);

}  // namespace tavmail

#endif
