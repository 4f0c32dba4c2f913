#include "state_file.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "home_folder.h"
#include "problem.h"

namespace tavmail {

std::string state_folder(const std::string& advice) {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && *state == '/') return std::string(state) + "/tavmail";
  const std::string home = home_of("");
  if (!home.empty() && home[0] == '/') return home + "/.local/state/tavmail";
  throw problem(EX_USAGE, "no home directory to keep files of tavmail in; " + advice);
}

void make_folder_of(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw problem(EX_CANTCREAT, "cannot make " + folder.string() + ": " + error.message());
}

std::string encoded_name(const std::string& text) {
  std::string word;
  for (const char ch : text) {
    const bool is_plain = (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'z') ||
                          (ch >= 'A' && ch <= 'Z') || std::strchr("-._@+", ch) != nullptr;
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02X",
                  static_cast<unsigned int>(static_cast<unsigned char>(ch)));
    word += is_plain && ch != '\0' ? std::string(1, ch) : escape;
  }
  return word;
}

}  // namespace tavmail
