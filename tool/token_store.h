// token_store.h - the tokens of an account, kept from run to run.

#ifndef TOKEN_STORE_H
#define TOKEN_STORE_H

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

#include "secret.h"
#include "token_provider.h"

namespace tavmail {

struct kept_tokens {
  secret_text refresh;
  std::optional<secret_text> access;  // the latest one
  std::time_t expires = 0;            // another one is due then; 0 when that is not known
  std::string scope;                  // what was granted, "" when that is not known
};

// Keeps them in a file that only the user can read, or hands the refresh token to the commands of
// the provider. Throws a problem, as all here.
class token_store {
 public:
  // `provider` must outlive it.
  explicit token_store(const token_provider& provider);

  // Keeps other runs away while it lives: a provider that replaces refresh tokens takes two users
  // of one for thieves.
  class lock {
   public:
    lock(const token_store& store, std::chrono::milliseconds patience);
    lock(const lock&) = delete;
    lock& operator=(const lock&) = delete;
    ~lock();

   private:
    int m_fd;
  };

  kept_tokens load(std::chrono::milliseconds patience) const;
  // Makes room for what is to be kept. Called before the provider replaces a token, which would be
  // lost on a full disk.
  void reserve() const;
  // `is_new`: the refresh token is another one than before.
  void save(const kept_tokens& tokens, bool is_new, std::chrono::milliseconds patience) const;

 private:
  bool has_commands() const { return !m_provider.load_command.empty(); }
  kept_tokens load_file() const;

  const token_provider& m_provider;
  const std::string m_path;
};

}  // namespace tavmail

#endif
