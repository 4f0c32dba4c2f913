// received_mail.h - reads one mail from the library: the living example of its calling sequences.

#ifndef RECEIVED_MAIL_H
#define RECEIVED_MAIL_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mail_folder.h"
#include "mailbox_session.h"
#include "raw_header.h"

namespace tavmail {

struct received_part {
  std::string content_type;  // "text/plain"; "" when the mail says nothing
  std::string char_set;      // that it came in, as the mail names it
  std::string encoding;
  std::string disposition;
  std::string name;  // as the sender gave it, "" for none
  std::string file;  // its name in the folder of the mail
  uint64_t bytes = 0;
  bool is_utf8 = false;    // it was made UTF-8
  bool is_certain = true;  // false when a block of it could not be decoded
};

struct received_mail {
  int number = 0;
  std::string uid;  // as the server gave it
  long size = 0;
  std::string from, to, cc, reply_to, subject, date, message_id;
  std::string content_type;
  std::string folder;  // its sub-folder, "" when nothing was saved
  std::vector<received_part> parts;
  bool is_kept = false;      // as a whole
  std::string file;          // then its path in the folder, "" when it has none of its own
  std::string problem;       // why it is not complete, "" when it is
  bool is_given_up = false;  // it was not tried: too often before
  bool is_deleted = false;

  // Something was saved, and nothing of it is in doubt.
  bool is_safe() const;
};

// Reads mails over a session that is connected.
class mail_reader {
 public:
  using progress = std::function<void()>;

  // `header` takes what the session receives. `on_progress` is called now and then; throwing out of
  // it ends the reading. `keeps_char_set`: texts are saved as they came.
  mail_reader(mailbox_session& session, raw_header& header, bool keeps_char_set,
              progress on_progress)
      : m_session(session),
        m_header(header),
        m_keepsCharSet(keeps_char_set),
        m_progress(std::move(on_progress)) {}

  // The whole mail, its parts into `folder`. Of a mail that breaks off the parts that are complete
  // are kept, with `mark` (mail_folder::begin_mail); nothing is when the trouble is on this side
  // and the mail will be read again.
  quorvelmida::TAV_EML_RESULT read(quorvelmida::tav_eml_pop3_mail_info& info, mail_folder& folder,
                                   const std::string& mark, received_mail& out);

 private:
  quorvelmida::TAV_EML_RESULT read_parts(quorvelmida::tav_eml_pop3_receive_mail& mail,
                                         const std::string& folder, received_mail& out);
  quorvelmida::TAV_EML_RESULT read_content(quorvelmida::tav_eml_pop3_receive_mail& mail,
                                           const std::string& folder, received_mail& out);
  quorvelmida::TAV_EML_RESULT read_body(quorvelmida::tav_eml_pop3_receive_mail& mail,
                                        quorvelmida::tav_eml_mlutl_mail_part& part,
                                        const std::string& folder, received_mail& out);

  mailbox_session& m_session;
  raw_header& m_header;
  const bool m_keepsCharSet;
  progress m_progress;
};

}  // namespace tavmail

#endif
