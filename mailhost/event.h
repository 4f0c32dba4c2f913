// event.h - what happens on the host, for whoever watches.

#ifndef MAILHOST_EVENT_H
#define MAILHOST_EVENT_H

#include <cstddef>
#include <string>

#include "mail_store.h"
#include "script.h"

namespace mailhost {

// Texts hold no credentials, no message text and no control characters.
struct event {
  enum kind_type {
    connected,  // text: the client's address
    client,     // text: a line that the client said
    server,     // text: a line that the host said
    tls,        // it begins; text: its version and cipher
    login,      // text: the user; detail: the method; when it failed: why, if known
    received,   // a mail; text: where it is kept; message: the mail
    fetched,    // a mail by RETR; text: its unique id
    deleted,    // a mail at the end of a session; text: its unique id
    note,       // text: anything else that a person should know
    closed,     // the client has gone
  };

  kind_type kind;
  size_t connection;  // from 1
  protocol speaks;
  std::string text = {};
  std::string detail = {};
  bool failed = false;
  const mail* message = nullptr;
};

}  // namespace mailhost

#endif
