#include "send_attempt.h"

#include "interrupt.h"
#include "outcome.h"

namespace tavmail {

using namespace quorvelmida;

send_attempt::send_attempt(const server_options& server, uint32_t size_limit, bool is_shown)
    : m_server(server),
      m_view(lines_to_stderr(is_shown), server.kind_of_dialogue()),
      m_tap(m_view),
      m_settings(server.settings(size_limit)) {}

bool send_attempt::goes_on(TAV_EML_RESULT result) const {
  return result == TAV_EML_OK && (!interrupt_guard::was_pressed() || m_view.end_was_sent());
}

problem send_attempt::ending(TAV_EML_RESULT result) const {
  const problem known = explain(result, m_view, m_server);
  const bool is_verdict = result == TAV_EML_ERR_REPLY || result == TAV_EML_ERR_REPLY_TEMPORARY;
  if (!interrupt_guard::was_pressed() || is_verdict) return known;
  return interrupt_guard::cause(m_view.end_was_sent()
                                    ? "the whole mail was sent and may have been delivered; ask "
                                      "the recipient before sending it again"
                                    : "nothing was delivered")
      .at(known.stage(), known.reply(), known.code());
}

const char* send_attempt::outcome() const { return outcome_of(m_view); }

}  // namespace tavmail
