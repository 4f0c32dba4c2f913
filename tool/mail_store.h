// mail_store.h - where whole mails go: a folder of files, a Maildir, an mbox, a command.

#ifndef MAIL_STORE_H
#define MAIL_STORE_H

#include <memory>
#include <string>
#include <string_view>

#include "problem.h"
#include "raw_header.h"
#include "wire_text.h"

namespace tavmail {

// What a mail becomes: a file for each part, or the mail as it came.
enum class mail_format { parts, eml, maildir, mbox };

// The command that mails are handed to did not take one. The mail stays where it was.
class not_taken : public problem {
 public:
  using problem::problem;
};

// Takes one mail after the other. A mail that does not come to its end leaves nothing; after a kill
// it may leave a file with its mark. What is here throws a problem.
class mail_store {
 public:
  virtual ~mail_store() = default;

  virtual wire_text::line_end line_end() const { return wire_text::line_end::lf; }
  // A mail comes; what came of another one is dropped.
  virtual void begin(const std::string& mark) = 0;
  virtual void write(std::string_view text) = 0;
  // All of it has come. Returns its path in the folder, "" where it has none of its own.
  virtual std::string finish(const raw_header& header) = 0;
  virtual void abandon() = 0;
  virtual void discard_marked(const std::string&) const {}
};

// Makes the folder when it does not exist.
std::unique_ptr<mail_store> make_mail_store(mail_format format, const std::string& folder);
// `is_quiet`: what the command prints goes to the standard error output.
std::unique_ptr<mail_store> make_mail_pipe(const std::string& command, bool is_quiet);
std::unique_ptr<mail_store> make_mbox(const std::string& path);

}  // namespace tavmail

#endif
