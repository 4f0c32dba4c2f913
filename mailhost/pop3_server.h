// pop3_server.h - one connection of POP3: RFC 1939, CAPA (RFC 2449), STLS (RFC 2595), AUTH (RFC
// 5034).
//
// There is one mailbox, which every user opens, and no lock on it: a session shows the mails that
// it found when it logged in.

#ifndef MAILHOST_POP3_SERVER_H
#define MAILHOST_POP3_SERVER_H

#include <optional>
#include <string>
#include <vector>

#include "mail_store.h"
#include "session.h"

namespace mailhost {

class pop3_server final : public session {
 public:
  pop3_server(mail_host& host, const std::string& address);

 protected:
  std::string greeting() override;
  void command(std::string_view line) override;
  void forget() override;
  void logged_in(const std::string& user) override;

 private:
  using words = std::vector<std::string>;
  enum state { authorization = 1, transaction = 2, any = authorization | transaction };

  // `answer` is the ordinary reply, `effect` what a positive one brings about.
  struct command_entry {
    const char* verb;
    state where;
    size_t least, most;  // arguments
    std::string (pop3_server::*answer)(const words& arguments);
    void (pop3_server::*effect)(const words& arguments);
  };
  static const command_entry commands[];

  struct entry {
    mail_store::entry message;
    bool is_deleted;
  };

  std::string ordinary(const command_entry& known, const words& arguments);
  void run(const command_entry& known, const words& arguments);

  std::string simple(const words&) { return "+OK"; }
  std::string pass(const words& arguments);
  std::string apop(const words& arguments);
  std::string capa(const words& arguments);
  std::string stls(const words& arguments);
  std::string stat(const words& arguments);
  std::string list(const words& arguments);
  std::string uidl(const words& arguments);
  std::string retr(const words& arguments);
  std::string top(const words& arguments);
  std::string dele(const words& arguments);

  void name_user(const words& arguments) { m_user = arguments[0]; }
  std::string login_name(const words& arguments) const;
  void log_in(const words& arguments);
  void begin_tls(const words&) { start_tls(); }
  void tell_fetched(const words& arguments);
  void mark(const words& arguments);
  void unmark(const words& arguments);
  void leave(const words& arguments);

  entry* find(const std::string& number);
  std::string listing(const words& arguments, std::string (*describe)(const mail_store::entry&));
  std::string message_text(const std::string& number, size_t body_lines);

  std::string m_stamp;
  state m_state = authorization;
  std::optional<std::string> m_user;  // of the USER just before
  std::vector<entry> m_entries;
};

}  // namespace mailhost

#endif
