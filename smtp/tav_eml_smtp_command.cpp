#include "quorvelmida/tav_eml_smtp_command.h"

#include <algorithm>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "envelope.h"
#include "greeting.h"
#include "login.h"
#include "message_data.h"
#include "pop_login.h"
#include "session_opening.h"
#include "smtp_dialogue.h"
#include "smtp_log.h"
#include "smtp_session.h"
#include "starttls.h"

namespace quorvelmida {

namespace {

// Opens a session and hands it out.
TAV_EML_RESULT hand_out(TAV_EML_RESULT (*open)(const tav_eml_smtp_settings*, session_owner&),
                        const tav_eml_smtp_settings* settings, ntssmtp_fileptr** session_out) {
  if (session_out == nullptr) {
    return command_failure("tav_eml_smtp_connect_start", " : smtpset==0", TAV_EML_ERR_UNKNOWN);
  }
  session_owner session;
  *session_out = nullptr;
  const TAV_EML_RESULT result = open(settings, session);
  *session_out = session.release();
  return result;
}

// Runs `step` on the dialogue of a session that is usable.
template <typename Step>
TAV_EML_RESULT in_session(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                          const char* operation, Step&& step,
                          const char* no_session = " : smtpset == 0",
                          const char* no_buffer = " : send_buffer == 0") {
  if (!is_usable(settings, session, operation, no_session, no_buffer)) return TAV_EML_ERR_UNKNOWN;
  // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): is_usable() has looked.
  smtp_dialogue dialogue(*session, *settings);
  return step(dialogue);
}

// Logs in by one method. `no_buffer` is logged for a session without buffers.
TAV_EML_RESULT log_in_by(login_function method, const char* operation, const char* no_buffer,
                         const login_account& account, ntssmtp_fileptr& session, long timeout) {
  if (!has_buffers(session)) return command_failure(operation, no_buffer, TAV_EML_ERR_UNKNOWN);
  return guarded(operation, [&] {
    smtp_dialogue dialogue(session, timeout);
    return method(account, dialogue);
  });
}

}  // namespace

tav_eml_smtp_command::tav_eml_smtp_command() = default;
tav_eml_smtp_command::~tav_eml_smtp_command() = default;

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_connect_start(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr** session) {
  return hand_out(&open_ready_session, settings, session);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_connect_only(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr** session) {
  return hand_out(&open_session, settings, session);
}

TAV_EML_RESULT tav_eml_smtp_command::SendHeloCommand(const tav_eml_smtp_settings* settings,
                                                     ntssmtp_fileptr* session) {
  return send_helo(settings, session);
}

TAV_EML_RESULT tav_eml_smtp_command::SendEhloCommand(const tav_eml_smtp_settings* settings,
                                                     ntssmtp_fileptr* session,
                                                     smtp_ehlo_option& option) {
  return send_ehlo(settings, session, option);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_pnon_auth_ehlo(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  return send_ehlo_or_helo(settings, session);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_start_tls(const tav_eml_smtp_settings* settings,
                                                            ntssmtp_fileptr* session) {
  return upgrade_to_tls(settings, session);
}

TAV_EML_RESULT tav_eml_smtp_command::NegotiateStartTLS(int sock, long timeout,
                                                       TAV_EML_TLS_INFO& tls) {
  connection link(sock, tls, kSmtpRules, timeout, timeout);
  return negotiate_starttls(link);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth(const tav_eml_smtp_settings* settings,
                                                       ntssmtp_fileptr* session,
                                                       smtp_ehlo_option& untried) {
  login_progress progress = {untried};
  const TAV_EML_RESULT result = log_in(settings, session, progress);
  untried = progress.untried;
  return result;
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_plain(const UtlString& user,
                                                             const UtlString& password,
                                                             ntssmtp_fileptr& session,
                                                             long timeout) {
  return log_in_by(&log_in_with_plain, "tav_eml_smtp_auth_plain", " : send_buffer == 0",
                   {user, password, ""}, session, timeout);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_login(const UtlString& user,
                                                             const UtlString& password,
                                                             ntssmtp_fileptr& session,
                                                             long timeout) {
  return log_in_by(&log_in_with_login, "tav_eml_smtp_auth_login", " : send_buffer == 0",
                   {user, password, ""}, session, timeout);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_cram_md5(const UtlString& user,
                                                                const UtlString& password,
                                                                ntssmtp_fileptr& session,
                                                                long timeout) {
  return log_in_by(&log_in_with_cram_md5, "tav_eml_smtp_auth_cram_md5", ": send_buffer == 0",
                   {user, password, ""}, session, timeout);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  constexpr char kName[] = "tav_eml_smtp_auth_digest_md5";
  if (!is_usable(settings, session, kName)) return TAV_EML_ERR_UNKNOWN;
  return log_in_by(&log_in_with_digest_md5, kName, " : send_buffer == 0",
                   {settings->user_id, settings->password, text_of(settings->server)}, *session,
                   to_milliseconds(settings->timeout));
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_pop_auth(const tav_eml_smtp_settings* settings,
                                                           ntssmtp_fileptr* session) {
  return log_in_over_pop3(settings, session);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_disconnect(const tav_eml_smtp_settings* settings,
                                                             ntssmtp_fileptr* session) {
  const TAV_EML_RESULT result = in_session(settings, session, "tav_eml_smtp_disconnect", &quit);
  if (result == TAV_EML_OK) session->status = SMTP_NOT_CONNECT;
  return result;
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_envelope(
    const tav_eml_smtp_settings* settings, tav_eml_smtp_send_mail* mail, ntssmtp_fileptr* session) {
  if (mail == nullptr) session = nullptr;
  return in_session(
      settings, session, "tav_eml_smtp_send_envelope",
      [mail](smtp_dialogue& dialogue) { return send_envelope(*mail, dialogue); }, " : fp == 0",
      " : send_buff == 0");
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_data_open(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  return in_session(settings, session, "tav_eml_smtp_send_data_open", &open_data);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_data(const tav_eml_smtp_settings* settings,
                                                            void* data, int length,
                                                            ntssmtp_fileptr* session) {
  if (settings == nullptr || data == nullptr || session == nullptr) {
    return command_failure("tav_eml_smtp_send_data", " : fp == 0", TAV_EML_ERR_UNKNOWN);
  }
  smtp_dialogue dialogue(*session, *settings);
  return send_data(dialogue, static_cast<const char*>(data), std::max(length, 0));
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_data_close(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  static constexpr char kName[] = "tav_eml_smtp_send_data_close";
  return in_session(settings, session, kName, [session](smtp_dialogue& dialogue) {
    if (!is_data_open(*session)) {
      TAV_EML_LOG_STATUS("tav_eml_smtp_command::%s():[Return] (fp->status is 0x%d)\n", kName,
                         session->status);
      return TAV_EML_OK;
    }
    const TAV_EML_RESULT result = close_data(dialogue);
    if (result == TAV_EML_OK) session->status = SMTP_CONNECT;
    return result;
  });
}

TAV_EML_RESULT tav_eml_smtp_command::RecvOneLineinFullRcv(int sock, char* buffer, long& size,
                                                          int flags, long timeout,
                                                          TAV_EML_TLS_INFO& tls) {
  connection link(sock, tls, kSmtpRules, timeout, timeout, flags);
  return read_whole_reply(link, buffer, size);
}

TAV_EML_RESULT tav_eml_smtp_command::SendData(int sock, const void* buffer, long& length, int flags,
                                              long timeout, TAV_EML_TLS_INFO& tls) {
  if (buffer == nullptr) {
    return command_failure("SendData", " : pBuffer == 0", TAV_EML_ERR_UNKNOWN);
  }
  return connection(sock, tls, kSmtpRules, timeout, timeout, flags).send_some(buffer, length);
}

TAV_EML_RESULT tav_eml_smtp_command::RecvData(int sock, void* buffer, long& length, int flags,
                                              long timeout, TAV_EML_TLS_INFO& tls) {
  if (buffer == nullptr) {
    return command_failure("recv_data", " : pBuffer == 0", TAV_EML_ERR_UNKNOWN);
  }
  return connection(sock, tls, kSmtpRules, timeout, timeout, flags).receive_some(buffer, length);
}

}  // namespace quorvelmida
