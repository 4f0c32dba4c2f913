// added_mail.h - the mails that are there from the start (--add).

#ifndef MAILHOST_ADDED_MAIL_H
#define MAILHOST_ADDED_MAIL_H

#include <string>

namespace mailhost {

// FILE, a mail as it is, or TEXT:FILE, of which a mail is made with this text and the file
// attached. Lines end in CR LF, however they ended in the file. Throws problem.
std::string added_mail(const std::string& argument);

}  // namespace mailhost

#endif
