// secret.h - passwords: from a file, from a command or from the terminal, never from an argument.

#ifndef TAVMAIL_SECRET_H
#define TAVMAIL_SECRET_H

#include <string>

namespace tavmail {

// A text that is wiped when it goes.
class secret_text {
 public:
  explicit secret_text(std::string text) : m_cText(std::move(text)) {}
  secret_text(const secret_text&) = delete;
  secret_text& operator=(const secret_text&) = delete;
  secret_text(secret_text&&) = default;
  ~secret_text();

  const std::string& text() const { return m_cText; }

 private:
  std::string m_cText;
};

// The first line of the file, or of what the command prints; without either the terminal is asked.
// Throws a problem.
secret_text read_password(const std::string& file, const std::string& command,
                          const std::string& user, const std::string& server);

}  // namespace tavmail

#endif
