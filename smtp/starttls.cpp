// The STARTTLS upgrade (RFC 3207).

#include "common/guard.h"
#include "common/log.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_result.h"
#include "smtp_session.h"
#include "starttls.h"
#include "transport/connection.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "NegotiateStartTLS";

// The command and the server's consent.
TAV_EML_RESULT ask_for_tls(int sock, utl_buffer& command, utl_buffer& reply, long timeout,
                           TAV_EML_TLS_INFO& tls) {
  TAV_EML_RESULT result = send_all(sock, command.data(), command.length(), timeout, tls);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: Send NG[Error:0x%08x]\n", kName, log_code(result));
    return result;
  }
  long size = SMTP_BUFFER_SIZE;
  result = tav_eml_smtp_command().RecvOneLineinFullRcv(sock, reply.data(), size, 0, timeout, tls);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: RecvOneLineinFullRcv NG[Error:0x%08x]\n", kName,
                      log_code(result));
    return result;
  }
  if (judge_reply(reply.data(), kReplySuccess) != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::%s: RecvOneLineinFullRcv NG[Error: SMTP_REPLY_AFFIRMATIVE]\n",
        kName);
    return TAV_EML_ERR_REPLY;
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT upgrade(int sock, utl_buffer& command, utl_buffer& reply, long timeout,
                       TAV_EML_TLS_INFO& tls) {
  const TAV_EML_RESULT asked = ask_for_tls(sock, command, reply, timeout, tls);
  if (asked != TAV_EML_OK) return asked;
  const TAV_EML_RESULT started =
      tav_eml_mlutl_mail_net().start_tls(sock, static_cast<unsigned int>(timeout), tls);
  if (started == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: tav_eml_mlutl_mail_net::start_tls NG[0x%08x]\n",
                    kName, log_code(started));
  return tls_result(started);
}

TAV_EML_RESULT negotiate(int& sock, long timeout, TAV_EML_TLS_INFO& tls) {
  constexpr char kCommand[] = "STARTTLS\r\n";
  utl_buffer command;
  if (!command.allocate(SMTP_BUFFER_SIZE - 1)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: sendbuff memAlloc NG[Error]\n", kName);
    return TAV_EML_ERR_NO_MEMORY;
  }
  std::memcpy(command.data(), kCommand, sizeof kCommand - 1);
  command.length() = sizeof kCommand - 1;
  utl_buffer reply;
  if (!reply.allocate(SMTP_BUFFER_SIZE - 1)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: recvbuff memAlloc NG[Error]\n", kName);
    return TAV_EML_ERR_NO_MEMORY;
  }
  const TAV_EML_RESULT result = upgrade(sock, command, reply, timeout, tls);
  if (result != TAV_EML_OK) {
    // Whatever the server said, going on in clear text is not what was asked for.
    tav_eml_mlutl_mail_net().close_socket(sock);
    sock = 0;
  }
  return result;
}

}  // namespace

TAV_EML_RESULT negotiate_starttls(int& sock, long timeout, TAV_EML_TLS_INFO& tls) {
  return guarded(kName, [&] { return negotiate(sock, timeout, tls); });
}

TAV_EML_RESULT tav_eml_smtp_command::NegotiateStartTLS(int sock, long timeout,
                                                       TAV_EML_TLS_INFO& tls) {
  return negotiate_starttls(sock, timeout, tls);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_start_tls(const tav_eml_smtp_settings* settings,
                                                            ntssmtp_fileptr* session) {
  constexpr char kStartTls[] = "tav_eml_smtp_start_tls";
  if (!is_usable(settings, session,
                 "tav_eml_smtp_command::tav_eml_smtp_start_tls: smtpset == 0[Error]\n",
                 "tav_eml_smtp_command::tav_eml_smtp_start_tls: send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  if (settings->tlsmode != 2) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: Invalid tlsmode[Error]\n", kStartTls);
    return TAV_EML_ERR_UNKNOWN;
  }

  smtp_ehlo_option option = {};
  TAV_EML_RESULT result = SendEhloCommand(settings, session, option);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: SendEhloCommand returns [0x%08x][Error]\n",
                      kStartTls, log_code(result));
    return result;
  }
  if (option.starttls == 0) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: SMTP STARTTLS IS NOT SUPPORTED[Error]\n",
                      kStartTls);
    return TAV_EML_ERR_REPLY;
  }
  result = negotiate_starttls(session->sock, timeout_ms(*settings), session->tls_info);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s returns [0x%08x][Error]\n", kStartTls,
                      log_code(result));
  }
  return result;
}

}  // namespace quorvelmida
