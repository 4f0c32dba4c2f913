// outgoing_mail.h - the mail that `tavmail send` was asked to compose.

#ifndef OUTGOING_MAIL_H
#define OUTGOING_MAIL_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "attachment.h"
#include "header_block.h"
#include "mail_input.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "send_options.h"

namespace tavmail {

// Ready to be sent, apart from the data of its attachments.
struct outgoing {
  quorvelmida::tav_eml_smtp_send_mail mail;  // header, envelope and text as the facade takes them
  std::optional<std::string> body;           // UTF-8, canonical lines
  std::optional<std::string> html;           // the same
  std::vector<std::unique_ptr<attachment>> files;
  std::vector<header_field> own;      // header fields that the facade does not write
  std::string sender;                 // of the envelope; "" for the author
  std::unique_ptr<mail_input> ready;  // in place of all that, of --raw

  // The facade composes a text and files, and takes the author for the sender.
  bool is_for_facade() const { return own.empty() && !html && sender.empty(); }
};

// Checks every value and fills the mail; nothing has been sent when a problem is thrown.
void prepare(const send_options& options, const std::vector<attachment_request>& files,
             outgoing& out);

}  // namespace tavmail

#endif
