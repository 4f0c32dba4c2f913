// whole_mail.h - reads a mail, or its header, as the server sends it.

#ifndef WHOLE_MAIL_H
#define WHOLE_MAIL_H

#include <cstdint>
#include <functional>
#include <string>

#include "mailbox_session.h"
#include "problem.h"
#include "raw_header.h"
#include "received_mail.h"
#include "wire_text.h"

namespace tavmail {

// Reads mails over a session that is connected. Results are the library's.
class whole_mail_reader {
 public:
  using progress = std::function<void()>;

  // `header` takes what the session receives. `on_progress` is called now and then; throwing out of
  // it ends the reading.
  whole_mail_reader(mailbox_session& session, raw_header& header, progress on_progress)
      : m_session(session), m_header(header), m_progress(std::move(on_progress)) {}

  // The header alone. A refusal leaves the connection open.
  quorvelmida::TAV_EML_RESULT read_header(const listed_mail& listed, received_mail& out);
  // All of it, into `text`.
  quorvelmida::TAV_EML_RESULT read(const listed_mail& listed, wire_text& text, received_mail& out);

  // The latest one did not end within 1 MiB for a header, 2 GiB for a mail. The result was
  // TAV_EML_ERR_REPLY, and the connection is closed.
  bool was_endless() const { return m_endless; }

 private:
  quorvelmida::TAV_EML_RESULT read_to_end(const std::string& received, wire_text& text,
                                          uint64_t most);

  mailbox_session& m_session;
  raw_header& m_header;
  progress m_progress;
  bool m_endless = false;
};

// The header of this mail was endless.
problem endless_header(int number);

}  // namespace tavmail

#endif
