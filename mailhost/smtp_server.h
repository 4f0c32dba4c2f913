// smtp_server.h - one connection of SMTP: RFC 5321, SIZE (RFC 1870), STARTTLS (RFC 3207), AUTH (RFC
// 4954), PIPELINING (RFC 2920).

#ifndef MAILHOST_SMTP_SERVER_H
#define MAILHOST_SMTP_SERVER_H

#include <string>

#include "mail_store.h"
#include "session.h"

namespace mailhost {

class smtp_server final : public session {
 public:
  smtp_server(mail_host& host, const std::string& address);
  ~smtp_server() override { reset_mail(); }

 protected:
  std::string greeting() override;
  void command(std::string_view line) override;
  void forget() override;
  void logged_in(const std::string& user) override;
  size_t take(std::string_view bytes) override;

 private:
  struct command_entry {
    const char* verb;
    void (smtp_server::*run)(const std::string& argument);
  };
  static const command_entry commands[];

  void ehlo(const std::string& name);
  void helo(const std::string& name);
  void greet(const char* verb, const std::string& name, const std::string& answer);
  void starttls(const std::string& argument);
  void auth_command(const std::string& argument);
  void mail_from(const std::string& argument);
  void rcpt_to(const std::string& argument);
  void data(const std::string& argument);
  void rset(const std::string& argument);
  void noop(const std::string& argument);
  void vrfy(const std::string& argument);
  void quit(const std::string& argument);

  bool may_send() const;
  void append(std::string_view bytes);
  void finish_message();
  bool keep();
  void reset_mail();

  std::string m_helo;
  bool m_isLoggedIn = false;
  std::string m_user;
  bool m_inMail = false;
  bool m_inData = false;
  bool m_atLineStart = true;
  mail m_message;
  size_t m_size = 0;  // of the message; more than its data when that was too big to keep
};

}  // namespace mailhost

#endif
