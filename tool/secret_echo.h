// secret_echo.h - finds what was sent as a secret where a server repeats it.

#ifndef SECRET_ECHO_H
#define SECRET_ECHO_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavmail {

constexpr char kMask[] = "****";

// Servers quote the command that they do not know, credentials included. What was sent in base64 is
// found decoded, too. Of a secret only its length and a hash, of a base that is new for each
// object, are kept.
class secret_echo {
 public:
  secret_echo();

  // The next byte of the secret that is being sent, and its end.
  void add(char ch);
  void end();

  // The text with every secret in it masked.
  std::string masked(std::string_view text) const;

 private:
  struct mark {
    size_t length;
    uint64_t hash;
  };

  static constexpr size_t kNoField = static_cast<size_t>(-1);

  void extend(mark& secret, char ch) const;
  void decode(char ch);
  void take_decoded(char byte);
  void keep(const mark& secret);

  // Where `secret` begins in the text from `from` on.
  size_t find(std::string_view text, const mark& secret, size_t from) const;

  uint64_t m_base;
  mark m_current = {0, 0};
  mark m_decoded = {0, 0};           // of PLAIN the last text, which is the password
  mark m_token = {0, 0};             // of a login with a token, which is in a field of its own
  size_t m_fieldMatched = kNoField;  // bytes of what that field begins with
  bool m_isBase64 = true;
  unsigned int m_group = 0;  // of the group that is being decoded
  int m_bitCount = 0;
  std::vector<mark> m_secrets;
};

}  // namespace tavmail

#endif
