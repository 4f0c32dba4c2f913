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

// The settings' time-out in milliseconds.
long timeout_ms(const tav_eml_smtp_settings& settings);

// True when there are settings and a session with its buffers. Otherwise one of the messages is
// logged.
bool is_usable(const tav_eml_smtp_settings* settings, const ntssmtp_fileptr* session,
               const char* null_message, const char* buffer_message);

}  // namespace quorvelmida

#endif
