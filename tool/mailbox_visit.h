// mailbox_visit.h - a mailbox as a command goes through it: its connection, and what is seen there.

#ifndef MAILBOX_VISIT_H
#define MAILBOX_VISIT_H

#include <functional>
#include <vector>

#include "dialogue_view.h"
#include "mailbox_options.h"
#include "mailbox_session.h"
#include "problem.h"
#include "raw_header.h"

namespace tavmail {

class mailbox_visit {
 public:
  // `options` must outlive it. `check_end` throws when the run is to end. Asks for the password.
  mailbox_visit(const mailbox_options& options, bool verbose, std::function<void()> check_end);

  // Connects, unless it is connected and in step, and counts the mails. Throws a problem, as what
  // follows.
  void open();
  // Tells in `has_uids` whether the server gives unique ids.
  std::vector<listed_mail> list(bool& has_uids);
  void require(quorvelmida::TAV_EML_RESULT result) const;
  problem explain(quorvelmida::TAV_EML_RESULT result) const;
  // The end: true when the server has said that it deletes what was marked.
  bool quit_is_confirmed();

  int connection() const { return m_connection; }  // counted
  int on_server() const { return m_onServer; }
  mailbox_session& session() { return m_session; }
  const mailbox_session& session() const { return m_session; }
  raw_header& header() { return m_header; }
  const dialogue_view& view() const { return m_view; }

 private:
  const mailbox_options& m_options;
  const std::function<void()> m_checkEnd;
  dialogue_view m_view;
  raw_header m_header;
  receive_tap m_tap;
  quorvelmida::tav_eml_pop3_settings m_settings;
  mailbox_session m_session;
  int m_connection = 0;
  int m_onServer = 0;
};

}  // namespace tavmail

#endif
