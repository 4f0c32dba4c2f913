#include "session_opening.h"

#include <utility>

#include "common/log.h"
#include "common/text.h"
#include "greeting.h"
#include "login.h"
#include "pop_login.h"
#include "smtp_log.h"
#include "starttls.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_connect_start";

// What can be refused before anything is sent.
TAV_EML_RESULT check_settings(const tav_eml_smtp_settings& settings) {
  if (settings.server.IsEmpty()) {
    return command_failure(kName, ":server==NULL or length==0", TAV_EML_ERR_PARAM);
  }
  if (settings.tlsmode > kUpgradedTls) {
    // An unknown mode must not come to mean plain text.
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s : tlsmode %d[Error]\n", kName, settings.tlsmode);
    return TAV_EML_ERR_PARAM;
  }
  constexpr size_t kAroundDomain = sizeof "EHLO \r\n";
  const bool fits = settings.helo_domain.GetLength() + kAroundDomain <= SMTP_BUFFER_SIZE;
  return fits && has_no_control(text_of(settings.helo_domain))
             ? TAV_EML_OK
             : command_failure(kName, " : invalid helo_domain", TAV_EML_ERR_PARAM);
}

// Connects and reads the greeting.
TAV_EML_RESULT open_connection(const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session) {
  static constexpr exchange_texts kGreeting = {kName, nullptr, " : recv_data1 NG",
                                               " : recv_data2 NG"};
  smtp_dialogue dialogue(session, settings);
  const TAV_EML_RESULT result =
      dialogue.open({settings.server.GetString(), settings.port, settings.addr_selector,
                     settings.tlsmode, settings.tls_opt});
  return result == TAV_EML_OK ? dialogue.expect(kReplySuccess, kGreeting) : result;
}

// Connects, and logs in or greets as configured.
TAV_EML_RESULT connect_and_log_in(const tav_eml_smtp_settings* settings, smtp_ehlo_option& untried,
                                  session_owner& session) {
  TAV_EML_RESULT result = open_session(settings, session);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): [Error]ConnectOnly return 0x%x\n", kName,
                      log_code(result));
    return result;
  }
  if (!wants_login(*settings)) return send_ehlo_or_helo(settings, session.get());

  result = log_in(settings, session.get(), untried);
  if (result != TAV_EML_OK && result != TAV_EML_ERR_AUTH) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: Login error (other than LOGIN) 0x%x\n", kName,
                      log_code(result));
  }
  return result;
}

bool wants_another_login(const smtp_ehlo_option& untried) {
  if (!has_login_method(untried)) return false;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): Retrying auth with different method\n", kName);
  return true;
}

}  // namespace

// The owner ends TLS, closes the socket and frees the record on every path that fails.
TAV_EML_RESULT open_session(const tav_eml_smtp_settings* settings, session_owner& session) {
  session.reset();
  if (settings == nullptr) return command_failure(kName, " : smtpset==0", TAV_EML_ERR_UNKNOWN);
  TAV_EML_RESULT result = check_settings(*settings);
  if (result != TAV_EML_OK) return result;

  session_owner opened;
  result = make_session(opened);
  if (result != TAV_EML_OK) return result;

  if (wants_pop_login(*settings)) {
    result = log_in_over_pop3(settings, opened.get());
    if (result != TAV_EML_OK) return command_failure(kName, " : POP AUTH NG", result);
    wait_after_pop_login(*settings);
  }
  result = open_connection(*settings, *opened);
  if (result != TAV_EML_OK) return result;

  if (settings->tlsmode == kUpgradedTls) {
    result = upgrade_to_tls(settings, opened.get());
    if (result != TAV_EML_OK) {
      return command_failure("tav_eml_smtp_connect_only", ": tav_eml_smtp_start_tls returns NG",
                             result);
    }
  }
  session = std::move(opened);
  return TAV_EML_OK;
}

TAV_EML_RESULT open_ready_session(const tav_eml_smtp_settings* settings, session_owner& session) {
  smtp_ehlo_option untried = {};
  TAV_EML_RESULT result = TAV_EML_ERR_UNKNOWN;
  bool is_refused = false;
  do {
    result = connect_and_log_in(settings, untried, session);
    if (result == TAV_EML_OK) {
      session->status = SMTP_CONNECT;
      return TAV_EML_OK;
    }
    // A refused login ends its connection; the next method gets one of its own.
    is_refused = result == TAV_EML_ERR_AUTH && session != nullptr;
    if (is_refused) session.reset();
  } while (is_refused && wants_another_login(untried));

  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): Closing connection due to previous errors\n",
                    kName);
  if (!session) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): Connection already closed...\n", kName);
  }
  session.reset();
  return result;
}

TAV_EML_RESULT quit(smtp_dialogue& dialogue) {
  static constexpr exchange_texts kTexts = {"tav_eml_smtp_disconnect", " : SendData NG",
                                            " : recv_data1 NG", " : recv_data2 NG"};
  const TAV_EML_RESULT sent = dialogue.send_command("QUIT\r\n");
  if (sent != TAV_EML_OK) return command_failure(kTexts.operation, kTexts.send, sent);
  dialogue.expect(kReplySuccess, kTexts);
  dialogue.close();
  return TAV_EML_OK;
}

}  // namespace quorvelmida
