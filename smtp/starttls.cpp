#include "starttls.h"

#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "common/utl_buffer.h"
#include "greeting.h"
#include "smtp_dialogue.h"
#include "smtp_log.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "NegotiateStartTLS";
constexpr char kCommand[] = "STARTTLS\r\n";
constexpr long kCommandLength = sizeof kCommand - 1;

TAV_EML_RESULT failed(const char* step, TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: %s NG[Error:0x%08x]\n", kName, step,
                    log_code(result));
  return result;
}

TAV_EML_RESULT upgrade(connection& link, const utl_buffer& command, utl_buffer& reply) {
  TAV_EML_RESULT result = link.send_all(command.data(), kCommandLength);
  if (result != TAV_EML_OK) return failed("Send", result);
  long size = SMTP_BUFFER_SIZE;
  result = read_whole_reply(link, reply.data(), size);
  if (result != TAV_EML_OK) return failed("RecvOneLineinFullRcv", result);
  if (judge_reply(reply.data(), kReplySuccess) != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::%s: RecvOneLineinFullRcv NG[Error: SMTP_REPLY_AFFIRMATIVE]\n",
        kName);
    return TAV_EML_ERR_REPLY;
  }
  result = link.start_tls();
  if (result == TAV_EML_OK) return result;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: tav_eml_mlutl_mail_net::start_tls NG[0x%08x]\n",
                    kName, log_code(result));
  return tls_result(result);
}

TAV_EML_RESULT negotiate(connection& link) {
  utl_buffer command;
  if (!command.allocate_uncleared(SMTP_BUFFER_SIZE - 1)) {
    return command_failure(kName, ": sendbuff memAlloc NG", TAV_EML_ERR_NO_MEMORY);
  }
  std::memcpy(command.data(), kCommand, sizeof kCommand);
  utl_buffer reply;
  if (!reply.allocate_uncleared(SMTP_BUFFER_SIZE - 1)) {
    return command_failure(kName, ": recvbuff memAlloc NG", TAV_EML_ERR_NO_MEMORY);
  }
  const TAV_EML_RESULT result = upgrade(link, command, reply);
  // Whatever the server said, going on in clear text is not what was asked for.
  if (result != TAV_EML_OK) link.close_socket();
  return result;
}

}  // namespace

TAV_EML_RESULT negotiate_starttls(connection& link) {
  return guarded(kName, [&] { return negotiate(link); });
}

TAV_EML_RESULT upgrade_to_tls(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  constexpr char kStartTls[] = "tav_eml_smtp_start_tls";
  if (!is_usable(settings, session, kStartTls, ": smtpset == 0", ": send_buffer == 0")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  if (settings->tlsmode != kUpgradedTls) {
    return command_failure(kStartTls, ": Invalid tlsmode", TAV_EML_ERR_UNKNOWN);
  }
  smtp_ehlo_option option = {};
  TAV_EML_RESULT result = send_ehlo(settings, session, option);
  if (result != TAV_EML_OK) return called_failure(kStartTls, "SendEhloCommand", result);
  if (option.starttls == 0) {
    return command_failure(kStartTls, ": SMTP STARTTLS IS NOT SUPPORTED", TAV_EML_ERR_REPLY);
  }
  smtp_dialogue dialogue(*session, *settings);
  result = negotiate_starttls(dialogue);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s returns [0x%08x][Error]\n", kStartTls,
                      log_code(result));
  }
  return result;
}

}  // namespace quorvelmida
