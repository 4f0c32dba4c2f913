// secret.h - passwords and tokens: from a file, from a command or from the terminal, never from an
// argument.

#ifndef TAVMAIL_SECRET_H
#define TAVMAIL_SECRET_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "shell_command.h"

namespace tavmail {

// A text in one place of memory, which is wiped when it goes.
class secret_text {
 public:
  static constexpr size_t kLongest = 1024;
  static constexpr size_t kLongestToken = 8192;

  explicit secret_text(size_t longest = kLongest);
  // Throws a problem, which begins with `source`, when it is too long or holds a NUL.
  secret_text(std::string_view text, const std::string& source);

  const char* text() const { return m_text.get(); }
  // All of its bytes, to be filled, and how many they are.
  char* room() { return m_text.get(); }
  size_t size() const { return m_text.get_deleter().size; }

 private:
  static constexpr size_t kMore = 2;  // one byte more shows that it is too long; a NUL

  struct wiper {
    size_t size;
    void operator()(char* text) const;
  };
  std::unique_ptr<char[], wiper> m_text;
};

// The first line of the file, or of what the command prints; without either the terminal is asked.
// Throws a problem.
secret_text read_password(const std::string& file, const std::string& command,
                          const std::string& user, const std::string& server);

// The first line of a file that only the user can read. `option` names it.
secret_text read_secret_file(const std::string& path, const std::string& option);

// An access or a refresh token. Throws a problem, which begins with `source`, when it is none.
secret_text token_text(std::string_view text, const std::string& source);

// The first line that the command prints, a token.
secret_text read_token(const std::string& command, const shell_command::settings& how);

}  // namespace tavmail

#endif
