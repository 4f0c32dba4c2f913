// secret.h - passwords: from a file, from a command or from the terminal, never from an argument.

#ifndef TAVMAIL_SECRET_H
#define TAVMAIL_SECRET_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace tavmail {

// A text in one place of memory, which is wiped when it goes.
class secret_text {
 public:
  static constexpr size_t kLongest = 1024;
  static constexpr size_t kRoom = kLongest + 2;  // one byte more shows that it is too long; a NUL

  secret_text() : m_text(new char[kRoom]()) {}
  // Throws a problem, which begins with `source`, when it is too long or holds a NUL.
  secret_text(std::string_view text, const std::string& source);

  const char* text() const { return m_text.get(); }
  // All of its kRoom bytes, to be filled.
  char* room() { return m_text.get(); }

 private:
  struct wiper {
    void operator()(char* text) const;
  };
  std::unique_ptr<char[], wiper> m_text;
};

// The first line of the file, or of what the command prints; without either the terminal is asked.
// Throws a problem.
secret_text read_password(const std::string& file, const std::string& command,
                          const std::string& user, const std::string& server);

}  // namespace tavmail

#endif
