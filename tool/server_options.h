// server_options.h - the server that takes mail, and how to log in there.

#ifndef SERVER_OPTIONS_H
#define SERVER_OPTIONS_H

#include <string>

#include "dialogue_view.h"
#include "endpoint_options.h"
#include "mailbox_options.h"
#include "quorvelmida/tav_eml_smtp_settings.h"

namespace tavmail {

enum class login_kind { automatic, none, smtp, pop, pop_and_smtp };

struct server_options : endpoint_options {
  std::string helo;
  login_kind login = login_kind::automatic;  // with a user, SMTP AUTH
  mailbox_options mailbox;                   // of the POP3 login before sending
  int pop_wait = 0;                          // seconds

  void add_to(command_line& command);

  // Fills in what was left open and checks what was given. Throws a problem.
  void complete();

  bool wants_smtp_login() const {
    return login == login_kind::smtp || login == login_kind::pop_and_smtp;
  }
  bool wants_pop_login() const {
    return login == login_kind::pop || login == login_kind::pop_and_smtp;
  }
  dialogue_kind kind_of_dialogue() const {
    return wants_pop_login() ? dialogue_kind::pop3_before_smtp : dialogue_kind::smtp;
  }

  // The library's settings. Asks for passwords, so it is called once.
  quorvelmida::tav_eml_smtp_settings settings(uint32_t size_limit) const;
};

}  // namespace tavmail

#endif
