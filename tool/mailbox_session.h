// mailbox_session.h - a connection to a mailbox, command by command.

#ifndef MAILBOX_SESSION_H
#define MAILBOX_SESSION_H

#include <functional>
#include <string>
#include <vector>

#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "quorvelmida/tav_eml_pop3_receive_mail.h"
#include "quorvelmida/tav_eml_pop3_settings.h"

namespace tavmail {

// A mail as the server lists it.
struct listed_mail {
  int number = 0;
  std::string uid;  // "" when the server gave none
  long size = 0;    // 0 when it is not known
};

// A refused command leaves the connection open, but for RETR. Results are the library's;
// after any but TAV_EML_OK, is_connected tells whether the connection is lost.
//
// The library's own list of what is new asks for each mail by itself, twice, and again after every
// lost connection; and it takes two mails with one unique id for one.
class mailbox_session {
 public:
  // `settings` must outlive the session.
  explicit mailbox_session(const quorvelmida::tav_eml_pop3_settings& settings);
  mailbox_session(const mailbox_session&) = delete;
  mailbox_session& operator=(const mailbox_session&) = delete;
  ~mailbox_session();

  quorvelmida::TAV_EML_RESULT connect();  // and logs in
  bool is_connected() const { return m_sock > 0; }
  // The server deletes now what was marked.
  void quit();
  // Without a goodbye: what comes next would be taken for the answer.
  void drop();

  quorvelmida::TAV_EML_RESULT count(int& mails);

  // The mails 1 to `count` (UIDL and LIST). `has_uids` tells whether the server took UIDL; without
  // LIST the sizes stay unknown. A list without end, or with a line that is too long, gives
  // TAV_EML_ERR_REPLY, and the connection is lost. `on_line` is called for each line; throwing out
  // of it ends the reading.
  quorvelmida::TAV_EML_RESULT list(int count, std::vector<listed_mail>& mails, bool& has_uids,
                                   const std::function<void()>& on_line);

  // The unique id of one mail, "" when the server refuses.
  quorvelmida::TAV_EML_RESULT uid_of(int number, std::string& uid);

  // Marks a mail as deleted. TAV_EML_ERR_REPLY when the server refuses.
  quorvelmida::TAV_EML_RESULT remove(int number);
  // Marks none any more.
  quorvelmida::TAV_EML_RESULT reset();

  // Begin to read a header (TOP) or a mail (RETR) as it is transferred; `received` is what has come
  // of it. Then read_some is called until its end has come, and after a failure no more.
  // TAV_EML_ERR_REPLY when the server refuses, or says what is no reply, which ends the connection.
  quorvelmida::TAV_EML_RESULT begin_header(int number, std::string& received);
  quorvelmida::TAV_EML_RESULT begin_mail(int number, std::string& received);
  // `length` is the room at `buffer`, and becomes the number of bytes.
  quorvelmida::TAV_EML_RESULT read_some(char* buffer, size_t& length);

  // Begin to read a mail (RETR); one step of the parser each.
  quorvelmida::TAV_EML_RESULT receive_header(quorvelmida::tav_eml_pop3_receive_mail& mail);
  quorvelmida::TAV_EML_RESULT receive_body(quorvelmida::tav_eml_pop3_receive_mail& mail);
  quorvelmida::TAV_EML_RESULT receive_part_header(quorvelmida::tav_eml_pop3_receive_mail& mail);
  quorvelmida::TAV_EML_RESULT receive_part_body(quorvelmida::tav_eml_pop3_receive_mail& mail);
  quorvelmida::TAV_EML_RESULT skip_mail(quorvelmida::tav_eml_pop3_receive_mail& mail);

 private:
  using take_line = std::function<void(int number, const std::string& word)>;

  quorvelmida::TAV_EML_RESULT ask(const std::string& command, std::string& reply);
  quorvelmida::TAV_EML_RESULT require(const std::string& command);
  quorvelmida::TAV_EML_RESULT read_list(const take_line& take);
  unsigned int timeout() const;

  const quorvelmida::tav_eml_pop3_settings& m_settings;
  int m_sock = 0;
  quorvelmida::TAV_EML_TLS_INFO m_tls{};
  quorvelmida::tav_eml_mlutl_receive m_parser;
};

}  // namespace tavmail

#endif
