// mailbox_options.h - the server that holds mail, and how to log in there.

#ifndef MAILBOX_OPTIONS_H
#define MAILBOX_OPTIONS_H

#include "endpoint_options.h"
#include "quorvelmida/tav_eml_pop3_settings.h"

namespace tavmail {

struct mailbox_options : endpoint_options {
  bool apop = false;

  void add_to(command_line& command);
  void add_login(command_line& command, const endpoint_protocol& protocol);

  // Fills in what was left open and checks what was given. Throws a problem.
  void complete();

  // The library's settings. Asks for the password, so it is called once.
  quorvelmida::tav_eml_pop3_settings settings() const;
};

}  // namespace tavmail

#endif
