// ready_sending.h - sends a mail that another program has composed.

#ifndef READY_SENDING_H
#define READY_SENDING_H

#include <functional>
#include <string>
#include <vector>

#include "mail_input.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "send_attempt.h"

namespace tavmail {

struct ready_options {
  std::string sender;           // "": the author that the mail names
  std::string fallback_sender;  // where it names none with a domain; "" for none
  std::vector<std::string> recipients;
  bool reads_recipients = false;  // also those that the mail names
  bool completes = false;         // adds From, Date and Message-Id where they are missing
  std::string author_name;        // for that From
  std::vector<std::string> permit;
  std::vector<std::string> deny;
};

// Bcc is taken out of the header. `mail` gets envelope and message id. `advance` is told of the
// bytes that were read. Throws a problem.
void send_ready(mail_input& input, const ready_options& options, const send_attempt& attempt,
                quorvelmida::tav_eml_smtp_send_mail& mail,
                const std::function<void(size_t)>& advance);

}  // namespace tavmail

#endif
