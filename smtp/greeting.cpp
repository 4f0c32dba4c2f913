// HELO, EHLO and what the server announces (RFC 5321 4.1.1.1).

#include <cstring>
#include <string>

#include "clb.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

void log_reply(const char* operation, const char* reply) {
  const reply_start start(reply);
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: receive %c%c%c%c[Error]\n", operation,
                    start.character[0], start.character[1], start.character[2], start.character[3]);
}

bool begins_with(const char* text, const char* word) {
  return clb_CompStrCaseN(text, word, std::strlen(word)) == 0;
}

// True for a line that refuses and does not say that more follows. It need not have the space that
// ends a reply: waiting for more behind "502" and CR LF would only end in a time-out.
bool is_short_refusal(const char* line) {
  constexpr size_t kCode = 3;
  return line[0] != kReplySuccess && (std::strlen(line) <= kCode || line[kCode] != '-');
}

// Takes what one EHLO line announces. The line is "250-KEYWORD ..." or "250 KEYWORD ...".
void take_capability(const char* line, std::string& mechanisms, bool& has_auth,
                     smtp_ehlo_option& option) {
  constexpr size_t kKeyword = 4;
  constexpr size_t kMechanisms = 9;  // behind "250-AUTH" and a space or an equals sign
  const size_t length = std::strlen(line);
  if (length <= kKeyword) return;
  if (begins_with(line + kKeyword, "AUTH")) {
    has_auth = true;
    mechanisms = length > kMechanisms ? line + kMechanisms : "";
  } else if (begins_with(line + kKeyword, "STARTTLS")) {
    option.starttls = 1;
  }
}

void take_mechanisms(const std::string& mechanisms, smtp_ehlo_option& option) {
  const auto offers = [&](const char* name) { return mechanisms.find(name) != std::string::npos; };
  if (offers("CRAM-MD5")) option.cram_md5 = 1;
  if (offers("DIGEST-MD5")) option.digest_md5 = 1;
  if (offers("PLAIN")) option.plain = 1;
  if (offers("LOGIN")) option.login = 1;
}

// Reads the EHLO reply to its last line, also when it is a refusal: what is left unread would be
// taken for the reply to the next command. A refusal stays the verdict when its rest does not come.
TAV_EML_RESULT read_capabilities(ntssmtp_fileptr& session, long timeout, smtp_ehlo_option& option) {
  std::string mechanisms;
  bool has_auth = false;
  TAV_EML_RESULT verdict = TAV_EML_OK;
  for (int count = 0; count < kMaxReplyLines; ++count) {
    char* line = session.recv_buffer;
    long size = SMTP_BUFFER_SIZE;
    const TAV_EML_RESULT result =
        read_reply_line(session.sock, line, size, 0, timeout, session.tls_info);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::%s: recv_one_line return 0x%08x[Error]\n",
                        "SendEhloCommand", log_code(result));
      return verdict != TAV_EML_OK ? verdict : result;
    }
    if (verdict == TAV_EML_OK) {
      verdict = judge_reply(line, kReplySuccess);
      if (verdict != TAV_EML_OK) log_reply("SendEhloCommand", line);
    }
    if (verdict == TAV_EML_OK) take_capability(line, mechanisms, has_auth, option);
    if (is_last_line(line, size) || is_short_refusal(line)) {
      if (verdict == TAV_EML_OK && has_auth) take_mechanisms(mechanisms, option);
      return verdict;
    }
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: reply of more than %d lines[Error]\n",
                    "SendEhloCommand", kMaxReplyLines);
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT send_greeting(const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session,
                             const char* verb, const char* operation) {
  const TAV_EML_RESULT result =
      send_command(session, timeout_ms(settings), verb, text_of(settings.helo_domain), "\r\n");
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: SendData return 0x%08x[Error]\n", operation,
                      log_code(result));
  }
  return result;
}

}  // namespace

TAV_EML_RESULT tav_eml_smtp_command::SendHeloCommand(const tav_eml_smtp_settings* settings,
                                                     ntssmtp_fileptr* session) {
  if (!is_usable(settings, session, "tav_eml_smtp_command::SendHeloCommand: smtpset == 0[Error]\n",
                 "tav_eml_smtp_command::SendHeloCommand: send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  TAV_EML_RESULT result = send_greeting(*settings, *session, "HELO ", "SendHeloCommand");
  if (result != TAV_EML_OK) return result;

  result = read_reply(*session, timeout_ms(*settings));
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: RecvOneLineinFullRcv return 0x%08x[Error]\n",
                      "SendHeloCommand", log_code(result));
    return result;
  }
  result = judge_reply(session->recv_buffer, kReplySuccess);
  if (result != TAV_EML_OK) log_reply("SendHeloCommand", session->recv_buffer);
  return result;
}

TAV_EML_RESULT tav_eml_smtp_command::SendEhloCommand(const tav_eml_smtp_settings* settings,
                                                     ntssmtp_fileptr* session,
                                                     smtp_ehlo_option& option) {
  if (!is_usable(settings, session, "tav_eml_smtp_command::SendEhloCommand: smtpset == 0[Error]\n",
                 "tav_eml_smtp_command::SendEhloCommand: send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("SendEhloCommand", [&] {
    const TAV_EML_RESULT result = send_greeting(*settings, *session, "EHLO ", "SendEhloCommand");
    return result != TAV_EML_OK ? result
                                : read_capabilities(*session, timeout_ms(*settings), option);
  });
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_pnon_auth_ehlo(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  smtp_ehlo_option ignored = {};
  const TAV_EML_RESULT ehlo = SendEhloCommand(settings, session, ignored);
  if (ehlo == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: SendEhloCommand returns [0x%08x][Error]\n",
                    "tav_eml_smtp_pnon_auth_ehlo", log_code(ehlo));

  const TAV_EML_RESULT helo = SendHeloCommand(settings, session);
  if (helo == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: SendHeloCommand returns [0x%08x][Error]\n",
                    "tav_eml_smtp_pnon_auth_ehlo", log_code(helo));
  if (session != nullptr) close_connection(*session);
  return helo;
}

}  // namespace quorvelmida
