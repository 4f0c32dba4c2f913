#include "home_folder.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace tavmail {

// Services may run without the variable.
std::string home_of(const std::string& user) {
  const char* home = std::getenv("HOME");
  if (user.empty() && home != nullptr && *home != '\0') return home;
  const passwd* entry = user.empty() ? getpwuid(getuid()) : getpwnam(user.c_str());
  return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "";
}

}  // namespace tavmail
