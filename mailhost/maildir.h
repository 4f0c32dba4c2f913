// maildir.h - mails as files in a folder of the form Maildir, which other programs read as well: a
// mail is written into tmp/ and moved to new/ when it is whole. What others put into new/ or cur/
// is handed out like the rest.
//
// A mail is kept byte by byte as it came, with CR LF. Its unique id is the name of its file, so it
// stays the same over restarts and when another program moves the file to cur/.

#ifndef MAILHOST_MAILDIR_H
#define MAILHOST_MAILDIR_H

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "mail_store.h"

namespace mailhost {

class maildir : public mail_store {
 public:
  static constexpr uintmax_t most_bytes = uintmax_t{1} << 30;  // of all that this program keeps

  // Makes the folder where it is missing. Throws std::filesystem::filesystem_error.
  explicit maildir(const std::filesystem::path& folder);

  std::optional<std::string> keep(const mail& message) override;
  std::vector<entry> list() override;
  std::optional<std::string> text(const std::string& uid) override;
  void remove(const std::string& uid) override;

 private:
  using path_map = std::map<std::string, std::filesystem::path>;  // by unique id

  path_map files() const;

  std::filesystem::path m_folder;
  std::map<std::string, size_t> m_sizes;  // of the mails that were read before
  size_t m_count = 0;
  uintmax_t m_room = most_bytes;
};

// The bytes of a file, or nothing when it cannot be read.
std::optional<std::string> read_file(const std::filesystem::path& path);

// False when it could not be written as a whole.
bool write_file(const std::filesystem::path& path, const std::string& bytes, mode_t mode = 0644);

}  // namespace mailhost

#endif
