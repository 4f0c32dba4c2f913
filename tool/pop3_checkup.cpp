// The way to a mailbox.

#include <algorithm>

#include "checkup.h"
#include "examination.h"
#include "findings.h"
#include "outcome.h"
#include "quorvelmida/tav_eml_pop3_command.h"
#include "token_findings.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// A logged-in session, with POP3 commands that the library's boundary does not have by themselves.
class pop3_trial {
 public:
  explicit pop3_trial(const tav_eml_pop3_settings& settings) : m_settings(settings) {}
  pop3_trial(const pop3_trial&) = delete;
  pop3_trial& operator=(const pop3_trial&) = delete;
  ~pop3_trial() {
    if (m_sock > 0) tav_eml_pop3_command::disconnect(&m_settings, m_sock, m_tls);
  }

  TAV_EML_RESULT open() { return tav_eml_pop3_command::connect_start(&m_settings, m_sock, m_tls); }
  TAV_EML_RESULT count(int& mails) {
    int octets = 0;
    return tav_eml_pop3_command::get_stat(&m_settings, m_sock, m_tls, octets, mails);
  }
  // The unique id of the first mail, as a mailbox without any has none to ask for.
  TAV_EML_RESULT ask_unique_id() {
    UtlString id;
    return tav_eml_pop3_command::get_uniq_id(&m_settings, m_sock, m_tls, 1, id);
  }

 private:
  const tav_eml_pop3_settings& m_settings;
  int m_sock = 0;
  TAV_EML_TLS_INFO m_tls;
};

// "+OK\r\nUIDL\r\n.\r\n" as "UIDL".
std::string offer_text(const std::string& offer) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < offer.size();) {
    const size_t end = std::min(offer.find('\n', at), offer.size());
    lines.push_back(presentable(offer.substr(at, end - at)));
    at = end + 1;
  }
  return lines.empty() || lines[0].rfind("+OK", 0) != 0 ? "" : joined_offer(lines, 0);
}

// A login that was refused because the server takes tokens, if not only them.
problem explain_login(const problem& cause, const std::string& offer,
                      const mailbox_options& options) {
  if (cause.stage() != "the login" || options.tokens() || !says(offer, "OAUTH")) return cause;
  const bool has_password = says(offer, "USER") || says(offer, "PLAIN");
  problem told = cause;
  told.in_parts(cause.cause() + (has_password ? "" : "; it offers OAuth only"),
                (has_password ? cause.remedy() + "; the server may take no passwords: " : "") +
                    token_advice(options));
  return told;
}

}  // namespace

checkup check_pop3(const mailbox_options& options, bool verbose) {
  examination test("pop3", options);
  if (!test.check_token(options, "")) return test.take();
  const tav_eml_pop3_settings settings = options.settings();
  port_look look;
  if (!test.check_way(options, true, "", look)) return test.take();
  dialogue_view view(line_sink(verbose), dialogue_kind::pop3);
  const dialogue_tap tap(view);
  pop3_trial session(settings);
  int count = 0;
  TAV_EML_RESULT result = session.open();
  const bool is_open = result == TAV_EML_OK;
  if (is_open) result = session.count(count);
  const bool is_counted = result == TAV_EML_OK;
  if (is_counted && count > 0) result = session.ask_unique_id();
  test.report_connection(view, options, true, "");
  const exchange* list = last_good(view, "CAPA");
  const std::string offer = list != nullptr ? joined_offer(list->reply, 0) : offer_text(look.offer);
  if (!offer.empty()) test.good("capabilities", offer);
  if (is_open) test.report_login(options.user, "");
  if (is_counted) test.good("mailbox", std::to_string(count) + (count == 1 ? " mail" : " mails"));
  if (result != TAV_EML_OK) {
    test.fail(explain_login(explain_mailbox(result, view, options), offer, options), "");
  }
  if (is_counted && count == 0 && !offer.empty() && !says(offer, "UIDL")) {
    test.fail("unique ids", without_unique_ids(options));
  }
  if (test.is_good()) test.good("result", "ready to receive");
  return test.take();
}

}  // namespace tavmail
