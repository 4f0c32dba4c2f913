#include "mailbox_visit.h"

#include <utility>

#include "outcome.h"

namespace tavmail {

using namespace quorvelmida;

mailbox_visit::mailbox_visit(const mailbox_options& options, bool verbose,
                             std::function<void()> check_end)
    : m_options(options),
      m_checkEnd(std::move(check_end)),
      m_view(lines_to_stderr(verbose), dialogue_kind::pop3),
      m_tap(m_view, m_header),
      m_settings(options.settings()),
      m_session(m_settings) {}

void mailbox_visit::require(TAV_EML_RESULT result) const {
  if (result == TAV_EML_OK) return;
  m_checkEnd();
  throw explain(result);
}

problem mailbox_visit::explain(TAV_EML_RESULT result) const {
  return explain_mailbox(result, m_view, m_options);
}

void mailbox_visit::open() {
  // It would be taken for answers to the next commands. Whoever has written a mail with a line of
  // one dot after a lone line feed may have chosen it.
  if (m_view.has_excess()) m_session.drop();
  if (m_session.is_connected()) return;
  require(m_session.connect());
  require(m_session.count(m_onServer));
  ++m_connection;
}

std::vector<listed_mail> mailbox_visit::list(bool& has_uids) {
  std::vector<listed_mail> listed;
  has_uids = true;
  if (m_onServer == 0) return listed;
  const TAV_EML_RESULT result = m_session.list(m_onServer, listed, has_uids, m_checkEnd);
  if (result == TAV_EML_ERR_REPLY) {
    throw problem(EX_PROTOCOL, m_options.place() +
                                   " sends a list of mails without end, or with a line of more "
                                   "than 4095 bytes");
  }
  require(result);
  return listed;
}

bool mailbox_visit::quit_is_confirmed() {
  m_session.quit();
  const exchange* last = m_view.decisive();
  return last != nullptr && last->verb == "QUIT" && last->is_success();
}

}  // namespace tavmail
