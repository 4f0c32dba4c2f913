// login.h - one login by SASL (RFC 4422) on the server's side: PLAIN (RFC 4616), LOGIN, CRAM-MD5
// (RFC 2195), DIGEST-MD5 (RFC 2831); with a token OAUTHBEARER (RFC 7628) and XOAUTH2.
//
// The texts here are those inside the base64 of the protocols.

#ifndef MAILHOST_LOGIN_H
#define MAILHOST_LOGIN_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mailhost {

using user_map = std::map<std::string, std::string>;  // name to password

class sasl_login {
 public:
  enum class verdict { challenge, granted, refused };

  struct host_words {
    std::string service;  // "smtp" or "pop"
    std::string realm;    // the host's name
    std::string nonce;    // never the same twice
  };

  // Those with a password.
  static const std::vector<std::string>& methods();
  // Those with a token: what stands for passwords in `users` are tokens then.
  static const std::vector<std::string>& bearer_methods();

  // A method that is not known refuses everything. The users outlive the login.
  sasl_login(const std::string& method, const user_map& users, const host_words& words);

  // The client's next text; at first its initial response, if it gave one.
  verdict proceed(const std::optional<std::string>& response);

  const std::string& challenge() const { return m_challenge; }
  // Who logs in, as far as that is known.
  const std::string& user() const { return m_user; }
  // Why it was refused, for whoever looks for the fault of a client.
  const std::string& reason() const { return m_reason; }

 private:
  using step = verdict (sasl_login::*)(const std::string& response);
  struct method_entry {
    const char* name;
    const char* first_challenge;  // null: one of its own for each login
    bool takes_initial_response;
    step check;
    bool is_bearer = false;
  };
  static const method_entry table[];

  verdict ask(const std::string& challenge);
  verdict refuse(const char* reason);
  verdict grant_if(bool matches) {
    return matches ? verdict::granted : refuse("the password is another one");
  }
  verdict plain(const std::string& response);
  verdict login(const std::string& response);
  verdict cram_md5(const std::string& response);
  verdict digest_md5(const std::string& response);
  verdict oauthbearer(const std::string& response);
  verdict xoauth2(const std::string& response);
  verdict bearer(const std::string& user, std::string_view fields);
  // The password of m_user; null for nobody's.
  const std::string* password();

  const method_entry* m_entry = nullptr;
  const user_map& m_users;
  host_words m_words;
  std::string m_method;
  std::string m_challenge;
  std::string m_user;
  std::string m_reason;
  size_t m_answers = 0;
  bool m_isOver = false;
};

}  // namespace mailhost

#endif
