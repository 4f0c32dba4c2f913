// The way of a mail, up to its data.

#include <algorithm>

#include "checkup.h"
#include "examination.h"
#include "message_text.h"
#include "outcome.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "tls_advice.h"
#include "utl_os.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr char kBeforeSmtp[] = "pop3 ";

// Letters, digits and what else is common in names.
bool is_plain(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char ch) {
    return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') ||
           ch == '.' || ch == '-' || ch == '_' || ch == '+';
  });
}

// The domain of "smtp.example.com" is most likely "example.com".
std::string guessed_domain(const std::string& server) {
  const bool is_address = server.find_first_not_of("0123456789.") == std::string::npos;
  if (is_address) return "[" + server + "]";
  if (!is_plain(server)) return "localhost";
  for (const std::string host : {"smtp.", "mail.", "mx.", "pop.", "pop3."}) {
    const bool has_domain = server.find('.', host.size()) != std::string::npos;
    if (server.rfind(host, 0) == 0 && has_domain) return server.substr(host.size());
  }
  return server;
}

// The address that a mail is tried with when none is given: the user's, or that of whoever every
// server has to know.
std::string guessed_address(const server_options& options) {
  const size_t at = options.user.find('@');
  if (at != std::string::npos && is_plain(options.user.substr(0, at)) &&
      is_plain(options.user.substr(at + 1))) {
    return options.user;
  }
  return (is_plain(options.user) ? options.user : "postmaster") + "@" +
         guessed_domain(options.server);
}

// A session of the command layer that is given up before the data of a mail.
class smtp_trial {
 public:
  explicit smtp_trial(const tav_eml_smtp_settings& settings) : m_settings(settings) {}
  smtp_trial(const smtp_trial&) = delete;
  smtp_trial& operator=(const smtp_trial&) = delete;
  ~smtp_trial() {
    if (m_session == nullptr) return;
    tav_eml_mlutl_mail_net net;
    net.end_tls(m_session->tls_info);
    if (m_session->sock > 0) net.close_socket(m_session->sock);
    UtlOS::MemFree(m_session->send_buffer);
    UtlOS::MemFree(m_session->recv_buffer);
    UtlOS::MemFree(m_session);
  }

  TAV_EML_RESULT open() { return m_command.tav_eml_smtp_connect_start(&m_settings, &m_session); }

  // MAIL and RCPT.
  TAV_EML_RESULT name(const std::string& from, const std::string& to) {
    tav_eml_smtp_send_mail mail;
    mail.m_cFrom = tav_eml_mlutl_mail_address(from.c_str());
    mail.m_cTo = tav_eml_mlutl_mail_address(to.c_str());
    return m_command.tav_eml_smtp_send_envelope(&m_settings, &mail, m_session);
  }

  void close() {
    constexpr char kReset[] = "RSET\r\n";
    const long timeout = static_cast<long>(m_settings.timeout) * 1000;
    long length = sizeof kReset - 1;
    long room = SMTP_BUFFER_SIZE;
    const bool is_reset =
        m_command.SendData(m_session->sock, kReset, length, 0, timeout, m_session->tls_info) ==
            TAV_EML_OK &&
        m_command.RecvOneLineinFullRcv(m_session->sock, m_session->recv_buffer, room, 0, timeout,
                                       m_session->tls_info) == TAV_EML_OK;
    if (is_reset) m_command.tav_eml_smtp_disconnect(&m_settings, m_session);
  }

 private:
  const tav_eml_smtp_settings& m_settings;
  tav_eml_smtp_command m_command;
  ntssmtp_fileptr* m_session = nullptr;
};

// What the server announces, and how large a mail may be.
void report_smtp_capabilities(const dialogue_view& view, examination& test) {
  constexpr size_t kCode = 4;
  const exchange* ehlo = last_good(view, "EHLO");
  if (ehlo == nullptr) return;
  test.good("capabilities", joined_offer(ehlo->reply, kCode));
  for (const std::string& line : ehlo->reply) {
    if (line.size() > kCode + 5 && line.compare(kCode, 5, "SIZE ") == 0) {
      const std::string size = line.substr(kCode + 5);
      test.good("size limit", size == "0" ? "none announced" : size + " bytes");
    }
  }
}

// After a reply the connection stands; after anything else there is nobody to say goodbye to.
bool has_replied(TAV_EML_RESULT result) {
  return result == TAV_EML_OK || result == TAV_EML_ERR_REPLY ||
         result == TAV_EML_ERR_REPLY_TEMPORARY;
}

// A refusal of MAIL or RCPT says little where the address was a guess.
void report_envelope(TAV_EML_RESULT result, const dialogue_view& view, const trial_options& options,
                     examination& test) {
  for (const exchange& entry : view.exchanges()) {
    if (!entry.is_success()) continue;
    if (entry.verb == "MAIL") test.good("sender", entry.address + " is accepted");
    if (entry.verb == "RCPT") test.good("recipient", entry.address + " is accepted");
  }
  if (result == TAV_EML_OK) return;
  const problem cause = explain(result, view, options);
  const exchange* last = view.decisive();
  const bool is_judged_by_address = options.from.empty() && cause.exit_code() == EX_UNAVAILABLE &&
                                    last != nullptr && last->judged == verdict::refused &&
                                    !wants_tls(*last);
  if (!is_judged_by_address) return test.fail(cause, "");
  const std::string remark = "the address is a guess: name yours with --from ADDRESS";
  if (options.wants_smtp_login()) {
    test.good(last->verb == "MAIL" ? "sender" : "recipient", cause.cause(), remark);
  } else {
    const bool says_login = says(cause.cause(), "wants a login");
    test.fail(last->verb == "MAIL" ? "sender" : "recipient",
              {cause.exit_code(), cause.cause(),
               says_login ? cause.remedy() : "it may want a login (--user NAME); or " + remark});
  }
}

// What was found before MAIL.
void report_opening(TAV_EML_RESULT result, const dialogue_view& view, const trial_options& options,
                    examination& test) {
  if (options.wants_pop_login()) {
    test.report_connection(view, options.mailbox, true, kBeforeSmtp);
    if (!view.is_pop3()) test.report_login(options.mailbox.user, kBeforeSmtp);
  }
  test.report_connection(view, options, false, "");
  report_smtp_capabilities(view, test);
  if (result == TAV_EML_OK) {
    test.report_login(options.wants_smtp_login() ? options.user : "", "");
  } else {
    const bool is_mailbox = view.is_pop3() && view.refused_login() == nullptr;
    test.fail(explain(result, view, options), is_mailbox ? kBeforeSmtp : "");
  }
}

// The way to the mailbox comes first, as the login there does; both ways are tried before it.
checkup in_order(checkup result) {
  std::stable_partition(result.stages.begin(), result.stages.end(), [](const checkup_stage& stage) {
    return stage.name.rfind(kBeforeSmtp, 0) == 0;
  });
  return result;
}

}  // namespace

checkup check_smtp(const trial_options& options, bool verbose) {
  const std::string from = encoded_addresses(
      "--from", options.from.empty() ? guessed_address(options) : options.from, TAV_EML_CS_UTF_8);
  const std::string to =
      options.to.empty() ? from : encoded_addresses("--to", options.to, TAV_EML_CS_UTF_8);
  examination test("smtp", options);
  const bool has_tokens =
      (!options.wants_pop_login() || test.check_token(options.mailbox, kBeforeSmtp)) &&
      (!options.wants_smtp_login() || test.check_token(options, ""));
  if (!has_tokens) return in_order(test.take());
  const tav_eml_smtp_settings settings = options.settings(0);
  port_look look;
  const bool has_way =
      (!options.wants_pop_login() || test.check_way(options.mailbox, true, kBeforeSmtp, look)) &&
      test.check_way(options, false, "", look);
  if (!has_way) return in_order(test.take());

  dialogue_view view(line_sink(verbose), options.kind_of_dialogue());
  const dialogue_tap tap(view);
  smtp_trial session(settings);
  TAV_EML_RESULT result = session.open();
  report_opening(result, view, options, test);
  if (result != TAV_EML_OK) return in_order(test.take());
  result = session.name(from, to);
  report_envelope(result, view, options, test);
  if (has_replied(result)) session.close();
  if (test.is_good()) test.good("result", "ready to send; no mail was sent");
  return in_order(test.take());
}

}  // namespace tavmail
