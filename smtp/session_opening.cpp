// Opening and closing a session.

#include <cstring>

#include "common/log.h"
#include "common/text.h"
#include "pop_login.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_result.h"
#include "smtp_session.h"
#include "transport/connection.h"

namespace quorvelmida {

namespace {

constexpr int32_t kSmtpAuth = 1;
constexpr int32_t kPopBeforeSmtp = 2;
constexpr int32_t kPopBeforeSmtpAndAuth = 3;

constexpr uint8_t kImplicitTls = 1;
constexpr uint8_t kStartTls = 2;

bool wants_auth(const tav_eml_smtp_settings& settings) {
  return settings.auth_kind == kSmtpAuth || settings.auth_kind == kPopBeforeSmtpAndAuth;
}

bool wants_pop_login(const tav_eml_smtp_settings& settings) {
  return settings.auth_kind == kPopBeforeSmtp || settings.auth_kind == kPopBeforeSmtpAndAuth;
}

// What can be refused before anything is sent.
TAV_EML_RESULT check_settings(const tav_eml_smtp_settings& settings) {
  if (settings.server.IsEmpty()) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::tav_eml_smtp_connect_start:server==NULL or length==0[Error]\n");
    return TAV_EML_ERR_PARAM;
  }
  if (settings.tlsmode > kStartTls) {
    // An unknown mode must not come to mean plain text.
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : tlsmode %d[Error]\n",
                      settings.tlsmode);
    return TAV_EML_ERR_PARAM;
  }
  constexpr size_t kAroundDomain = sizeof "EHLO \r\n";
  if (!has_no_control(text_of(settings.helo_domain)) ||
      settings.helo_domain.GetLength() + kAroundDomain > SMTP_BUFFER_SIZE) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::tav_eml_smtp_connect_start : invalid helo_domain[Error]\n");
    return TAV_EML_ERR_PARAM;
  }
  return TAV_EML_OK;
}

void set_tls_options(const tav_eml_smtp_settings& settings, TAV_EML_TLS_INFO& tls) {
  if (settings.tlsmode == 0) return;
  tls.tls_opt0 = settings.tls_opt[0];
  tls.tls_opt1 = settings.tls_opt[1];
  tls.tls_opt2 = settings.tls_opt[2];
  tls.tls_opt3 = settings.tls_opt[3];
  tls.tls_opt4 = settings.tls_opt[4];
}

TAV_EML_RESULT open_connection(const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session) {
  tav_eml_mlutl_mail_net net;
  int sock = 0;
  TAV_EML_RESULT result =
      net.connect_mail(&sock, settings.server.GetString(), static_cast<uint16_t>(settings.port),
                       timeout_ms(settings), settings.addr_selector);
  session.sock = sock;
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : Connect NG[Error]\n");
    return normalise_result(result);
  }
  if (settings.tlsmode != kImplicitTls) return TAV_EML_OK;

  result = net.start_tls(session.sock, static_cast<unsigned int>(timeout_ms(settings)),
                         session.tls_info);
  if (result == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::start_tls NG[%d]\n", static_cast<int>(result));
  return tls_result(result);
}

TAV_EML_RESULT read_greeting(const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session) {
  TAV_EML_RESULT result = read_reply(session, timeout_ms(settings));
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : recv_data1 NG[Error]\n");
    return result;
  }
  result = judge_reply(session.recv_buffer, kReplySuccess);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : recv_data2 NG[Error]\n");
  }
  return result;
}

constexpr char kConnectStart[] = "tav_eml_smtp_connect_start";

// Connects, and logs in or greets as configured.
TAV_EML_RESULT open_ready_session(tav_eml_smtp_command& command,
                                  const tav_eml_smtp_settings* settings, smtp_ehlo_option& untried,
                                  session_owner& session) {
  ntssmtp_fileptr* opened = nullptr;
  TAV_EML_RESULT result = command.tav_eml_smtp_connect_only(settings, &opened);
  session.reset(opened);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): [Error]ConnectOnly return 0x%x\n", kConnectStart,
                      log_code(result));
    return result;
  }
  if (!wants_auth(*settings)) return command.tav_eml_smtp_pnon_auth_ehlo(settings, opened);

  result = command.tav_eml_smtp_auth(settings, opened, untried);
  if (result != TAV_EML_OK && result != TAV_EML_ERR_AUTH) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: Login error (other than LOGIN) 0x%x\n",
                      kConnectStart, log_code(result));
  }
  return result;
}

bool wants_another_login(const smtp_ehlo_option& untried) {
  if (untried.cram_md5 == 0 && untried.digest_md5 == 0 && untried.plain == 0 &&
      untried.login == 0) {
    return false;
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): Retrying auth with different method\n",
                    kConnectStart);
  return true;
}

}  // namespace

// The session's owner ends TLS, closes the socket and frees the record on every path that returns
// before the session is handed out.
TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_connect_only(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr** session_out) {
  if (session_out != nullptr) *session_out = nullptr;
  if (settings == nullptr || session_out == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : smtpset==0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  TAV_EML_RESULT result = check_settings(*settings);
  if (result != TAV_EML_OK) return result;

  session_owner session;
  result = make_session(session);
  if (result != TAV_EML_OK) return result;
  set_tls_options(*settings, session->tls_info);

  if (wants_pop_login(*settings)) {
    result = log_in_before_smtp(*this, *settings, session.get());
    if (result != TAV_EML_OK) return result;
  }
  result = open_connection(*settings, *session);
  if (result == TAV_EML_OK) result = read_greeting(*settings, *session);
  if (result != TAV_EML_OK) return result;

  if (settings->tlsmode == kStartTls) {
    result = tav_eml_smtp_start_tls(settings, session.get());
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: tav_eml_smtp_start_tls returns NG[Error]\n",
                        "tav_eml_smtp_connect_only");
      return result;
    }
  }
  *session_out = session.release();
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_connect_start(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr** session_out) {
  if (session_out == nullptr) return tav_eml_smtp_connect_only(settings, nullptr);
  *session_out = nullptr;
  smtp_ehlo_option untried = {};
  session_owner session;
  TAV_EML_RESULT result = TAV_EML_ERR_UNKNOWN;
  bool is_refused = false;
  do {
    result = open_ready_session(*this, settings, untried, session);
    if (result == TAV_EML_OK) {
      session->status = SMTP_CONNECT;
      *session_out = session.release();
      return TAV_EML_OK;
    }
    // A refused login ends its connection; the next method gets one of its own.
    is_refused = result == TAV_EML_ERR_AUTH && session != nullptr;
    if (is_refused) session.reset();
  } while (is_refused && wants_another_login(untried));

  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): Closing connection due to previous errors\n",
                    kConnectStart);
  if (!session) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s(): Connection already closed...\n", kConnectStart);
  }
  return result;
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_disconnect(const tav_eml_smtp_settings* settings,
                                                             ntssmtp_fileptr* session) {
  if (!is_usable(settings, session,
                 "tav_eml_smtp_command::tav_eml_smtp_disconnect : smtpset == 0[Error]\n",
                 "tav_eml_smtp_command::tav_eml_smtp_disconnect : send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  const TAV_EML_RESULT sent = send_command(*session, timeout_ms(*settings), "QUIT\r\n");
  if (sent != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_disconnect : SendData NG[Error]\n");
    return sent;
  }
  if (read_reply(*session, timeout_ms(*settings)) != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_disconnect : recv_data1 NG[Error]\n");
  } else if (judge_reply(session->recv_buffer, kReplySuccess) != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_disconnect : recv_data2 NG[Error]\n");
  }
  close_connection(*session);
  session->status = SMTP_NOT_CONNECT;
  return sent;
}

}  // namespace quorvelmida
