#include "raw_transaction.h"

#include <algorithm>

#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "utl_os.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// Without a word: in the middle of the data it would become a part of the mail.
void hang_up(ntssmtp_fileptr& session) {
  tav_eml_mlutl_mail_net net;
  net.end_tls(session.tls_info);
  if (session.sock > 0) net.close_socket(session.sock);
  session.sock = 0;
}

}  // namespace

raw_transaction::raw_transaction(const send_attempt& attempt)
    : m_attempt(attempt), m_settings(&attempt.settings()) {}

raw_transaction::~raw_transaction() {
  if (m_session == nullptr) return;
  if (m_session->sock > 0 && !is_data_open()) {
    m_command.tav_eml_smtp_disconnect(m_settings, m_session);
  }
  hang_up(*m_session);
  UtlOS::MemFree(m_session->send_buffer);
  UtlOS::MemFree(m_session->recv_buffer);
  UtlOS::MemFree(m_session);
}

void raw_transaction::require(TAV_EML_RESULT result) const {
  if (!m_attempt.goes_on(result)) throw m_attempt.ending(result);
}

bool raw_transaction::is_data_open() const { return m_session->status == SMTP_DATA_SEND; }

void raw_transaction::connect(tav_eml_smtp_send_mail& envelope) {
  require(m_command.tav_eml_smtp_connect_start(m_settings, &m_session));
  require(m_command.tav_eml_smtp_send_envelope(m_settings, &envelope, m_session));
  const TAV_EML_RESULT opened = m_command.tav_eml_smtp_send_data_open(m_settings, m_session);
  // Without an answer the server may be waiting for data.
  if (opened == TAV_EML_OK || opened == TAV_EML_ERR_TRANSFER_TIMEOUT) {
    m_session->status = SMTP_DATA_SEND;
  }
  require(opened);
}

// Stays below the limit, as the facade does.
void raw_transaction::count(size_t bytes) {
  m_sent += bytes;
  if (m_settings->size_limit != 0 && m_sent >= m_settings->size_limit) {
    throw m_attempt.ending(TAV_EML_ERR_SIZE_LIMIT);
  }
}

void raw_transaction::send(std::string_view lines) {
  // Each line feed becomes two bytes.
  count(lines.size() + static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n')));
  require(m_command.tav_eml_smtp_send_data(m_settings, const_cast<char*>(lines.data()),
                                           static_cast<int>(lines.size()), m_session));
}

void raw_transaction::send_bytes(std::string_view bytes) {
  const int64_t timeout = int64_t{m_settings->timeout} * 1000;
  while (!bytes.empty()) {
    long length = static_cast<long>(bytes.size());
    require(m_command.SendData(m_session->sock, bytes.data(), length, 0, static_cast<long>(timeout),
                               m_session->tls_info));
    bytes.remove_prefix(static_cast<size_t>(length));
  }
}

void raw_transaction::finish(std::string_view last_line) {
  count(last_line.size());
  if (last_line.substr(0, 1) == ".") send_bytes(".");
  send_bytes(last_line);
  require(m_command.tav_eml_smtp_send_data_close(m_settings, m_session));
}

}  // namespace tavmail
