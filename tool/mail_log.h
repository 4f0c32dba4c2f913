// mail_log.h - a line for each mail, in the form of msmtp (--log).

#ifndef MAIL_LOG_H
#define MAIL_LOG_H

#include <string>
#include <vector>

#include "dialogue_view.h"
#include "problem.h"
#include "received_mail.h"

namespace tavmail {

// What one run has to log. Nothing secret is in it: replies are taken as the view shows them.
class mail_log {
 public:
  // Forgets the run before.
  static void begin();
  // The end of a dialogue that sends, and what was received.
  static void note(const dialogue_view& view);
  static void note(const std::vector<received_mail>& mails);

  // "host=mail.example.com ... exitcode=EX_OK". `cause`: the problem that ended the run, or null.
  static std::vector<std::string> lines(const std::string& server, const std::string& user,
                                        bool is_sending, const problem* cause);
  // To the file, or to "syslog". False when they cannot be written.
  static bool write(const std::string& target, const std::vector<std::string>& lines,
                    bool is_failure);
};

}  // namespace tavmail

#endif
