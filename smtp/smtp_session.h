// smtp_session.h - ownership of a session record and its connection.

#ifndef SMTP_SESSION_H
#define SMTP_SESSION_H

#include <memory>

#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_settings.h"

namespace quorvelmida {

// Ends TLS, closes the socket once and zeroes the handle. A session without a connection is left
// alone, so every path may call it.
void close_connection(ntssmtp_fileptr& session);

// Closes the connection and frees the record and its buffers.
struct session_deleter {
  void operator()(ntssmtp_fileptr* session) const;
};
using session_owner = std::unique_ptr<ntssmtp_fileptr, session_deleter>;

// A zeroed record with its two buffers. TAV_EML_OK or TAV_EML_ERR_NO_MEMORY.
TAV_EML_RESULT make_session(session_owner& session);

// True between DATA and the end of the data.
inline bool is_data_open(const ntssmtp_fileptr& session) {
  return session.status == SMTP_DATA_SEND || session.status == SMTP_PART_SEND;
}

// What the settings' auth_kind asks for: SMTP AUTH, a POP3 login before, or both.
inline bool wants_login(const tav_eml_smtp_settings& settings) {
  return settings.auth_kind == 1 || settings.auth_kind == 3;
}
inline bool wants_pop_login(const tav_eml_smtp_settings& settings) {
  return settings.auth_kind == 2 || settings.auth_kind == 3;
}

bool has_buffers(const ntssmtp_fileptr& session);

// True when there are settings and a session with its buffers. What is missing is logged as a
// failed step of the operation.
bool is_usable(const tav_eml_smtp_settings* settings, const ntssmtp_fileptr* session,
               const char* operation, const char* no_session = " : smtpset == 0",
               const char* no_buffer = " : send_buffer == 0");

}  // namespace quorvelmida

#endif
