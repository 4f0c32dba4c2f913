// send_attempt.h - one attempt to hand a mail to a server: what was said, and what came of it.

#ifndef SEND_ATTEMPT_H
#define SEND_ATTEMPT_H

#include <string>

#include "dialogue_view.h"
#include "problem.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "server_options.h"

namespace tavmail {

// Watches the connections of the process while it lives. `server` outlives it.
class send_attempt {
 public:
  send_attempt(const server_options& server, uint32_t size_limit, bool is_shown);

  const quorvelmida::tav_eml_smtp_settings& settings() const { return m_settings; }

  // True when a step succeeded and the run is not to end.
  bool goes_on(quorvelmida::TAV_EML_RESULT result) const;
  // What to tell when it does not.
  problem ending(quorvelmida::TAV_EML_RESULT result) const;

  bool was_accepted() const { return m_view.was_accepted(); }
  std::string reply() const { return reply_text(m_view.decisive()); }
  const char* outcome() const;

 private:
  const server_options& m_server;
  dialogue_view m_view;
  const dialogue_tap m_tap;
  const quorvelmida::tav_eml_smtp_settings m_settings;
};

}  // namespace tavmail

#endif
