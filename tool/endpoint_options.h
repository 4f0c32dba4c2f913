// endpoint_options.h - one server: where it is, how to reach it, and the account there.

#ifndef ENDPOINT_OPTIONS_H
#define ENDPOINT_OPTIONS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "command_line.h"
#include "secret.h"
#include "token_provider.h"
#include "token_source.h"
#include "utl_string.h"

namespace tavmail {

enum class tls_mode { automatic, none, implicit, starttls };

// What tells protocols apart on the command line.
struct endpoint_protocol {
  const char* prefix;  // of the option names, "" or "pop3-"
  int implicit_port;
  int upgrade_port;  // STARTTLS or STLS
  int plain_port;
  const char* port_help;
};
extern const endpoint_protocol kSmtp;
extern const endpoint_protocol kPop3;
extern const endpoint_protocol kPop3BeforeSmtp;

struct endpoint_options {
  std::string server;  // HOST, HOST:PORT or [ADDRESS]:PORT
  int port = 0;        // 0: by the TLS mode
  tls_mode tls = tls_mode::automatic;
  bool no_check = false;
  std::string ca_file;
  std::string oldest_tls;
  bool ipv4 = false;  // alone; likewise below
  bool ipv6 = false;
  int timeout = 30;
  std::string user;
  std::string password_file;
  std::string password_command;
  std::string token_command;
  std::string lack;  // of accounts, for the message that the server is missing

  // Where it is and the account there; then what holds for every connection of a command.
  void add_address(command_line& command, const endpoint_protocol& protocol);
  void add_connection(command_line& command);

  // Fill in what was left open and check what was given. Throw a problem.
  void complete_address(const endpoint_protocol& protocol);
  void complete_connection();

  // " (--ipv6)" where other addresses do not count, else "".
  std::string family_remark() const { return ipv4 ? " (--ipv4)" : ipv6 ? " (--ipv6)" : ""; }
  std::string place() const { return server + " port " + std::to_string(port); }

  // A password that the configuration file holds.
  void set_password(secret_text text) {
    m_password = std::make_shared<secret_text>(std::move(text));
  }
  // Where an account gets tokens from, unless a command prints them.
  void set_provider(const token_provider& provider) { m_provider = provider; }
  // Takes the account of `other`, however its password is told.
  void share_account(const endpoint_options& other);

  // As the library's settings want them.
  uint8_t library_tls_mode() const;
  void library_tls_options(uint8_t (&options)[5]) const;
  // Gives the one copy of the password away, so it is called once.
  std::shared_ptr<const secret_text> take_password() const;
  // Null when passwords log in.
  const std::shared_ptr<token_source>& tokens() const { return m_tokens; }
  // Gets the first token and offers it to the logins of a service (tav_bearer.h). Throws a problem.
  void offer_tokens_to(int32_t service) const;

 private:
  void complete_tokens(const std::string& option);

  std::optional<token_provider> m_provider;
  std::shared_ptr<token_source> m_tokens;
  mutable std::shared_ptr<const secret_text> m_password;
};

// Wipes a text of a library record.
void wipe_record_text(UtlString& text);

}  // namespace tavmail

#endif
