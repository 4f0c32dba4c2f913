// token_source.h - access tokens for the library's logins.

#ifndef TOKEN_SOURCE_H
#define TOKEN_SOURCE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "problem.h"
#include "secret.h"

namespace tavmail {

// Where the tokens of an account come from. Not for several threads.
class token_source {
 public:
  virtual ~token_source() = default;

  // The token for a login, as long as the next call. `is_refused`: the server has refused the
  // latest one, so another one is wanted. Throws a problem.
  const secret_text& token(bool is_refused, std::chrono::milliseconds patience);

  // The latest one; null before the first.
  const secret_text* latest() const { return m_token ? &*m_token : nullptr; }

  // Has the way to the next token tried in full, even if a kept one would do.
  virtual void examine() {}
  // What it has found out about its tokens, for a person. "" for nothing.
  virtual std::string description() const = 0;
  // What to do when the server refuses the token of `user`.
  virtual finding advise(const std::string& user) const = 0;
  // What the tokens are for, parted by blanks; "" when that is not known.
  virtual std::string scope() const { return {}; }

 protected:
  virtual bool is_over() const = 0;
  // A new one. `is_refused` as above.
  virtual secret_text fetch(bool is_refused, std::chrono::milliseconds patience) = 0;

 private:
  std::optional<secret_text> m_token;
};

// What a command prints. It is kept until a server refuses it.
std::shared_ptr<token_source> tokens_of_command(const std::string& command,
                                                const std::string& option);

// Hands the tokens of `source` to the library's logins of a service (tav_bearer.h) for the rest of
// the run.
void offer_tokens(int32_t service, const std::shared_ptr<token_source>& source);

// Offers no tokens any more: the next run may be for another account.
void withdraw_tokens();

// Why there was no token for the latest login of the service; null when there was one.
const problem* token_problem(int32_t service);

}  // namespace tavmail

#endif
