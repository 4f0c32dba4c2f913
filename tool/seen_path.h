// seen_path.h - where the list of seen mails of a mailbox is kept.

#ifndef SEEN_PATH_H
#define SEEN_PATH_H

#include <string>

#include "mailbox_options.h"

namespace tavmail {

// Tells a mailbox from all others: "pop3s,mail.example.com,995,anna@example.com". No two mailboxes
// have the same one, and it has no path separator.
std::string mailbox_key(const mailbox_options& mailbox);

// A name of 32 characters for a text of any length.
std::string fingerprint(const std::string& text);

struct seen_path {
  std::string path;
  // Where an older version kept the list; "" where that name may be another mailbox's too.
  std::string old;
};

// `wanted`, or $XDG_STATE_HOME/tavmail/KEY.seen where that is "". Throws a problem.
seen_path place_of_list(const mailbox_options& mailbox, const std::string& wanted);

}  // namespace tavmail

#endif
