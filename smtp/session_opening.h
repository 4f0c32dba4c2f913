// session_opening.h - opening and closing a session.

#ifndef SESSION_OPENING_H
#define SESSION_OPENING_H

#include "quorvelmida/tav_eml_smtp_settings.h"
#include "smtp_dialogue.h"
#include "smtp_session.h"

namespace quorvelmida {

// As tav_eml_smtp_connect_only and tav_eml_smtp_connect_start of tav_eml_smtp_command. `session` is
// empty after a failure of the first.
TAV_EML_RESULT open_session(const tav_eml_smtp_settings* settings, session_owner& session);
TAV_EML_RESULT open_ready_session(const tav_eml_smtp_settings* settings, session_owner& session);

// Sends QUIT and closes the connection, whatever the reply. When QUIT cannot be sent, its code is
// returned and nothing is closed.
TAV_EML_RESULT quit(smtp_dialogue& dialogue);

}  // namespace quorvelmida

#endif
