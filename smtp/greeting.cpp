#include "greeting.h"

#include <cstring>
#include <string>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "login.h"
#include "smtp_dialogue.h"
#include "smtp_log.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

constexpr char kHelo[] = "SendHeloCommand";
constexpr char kEhlo[] = "SendEhloCommand";

// Logs the first four characters of a refusal.
TAV_EML_RESULT refused(const char* operation, const char* reply, TAV_EML_RESULT result) {
  char start[] = "    ";
  for (size_t i = 0; i < sizeof start - 1 && reply[i] != '\0'; ++i) start[i] = printable(reply[i]);
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: receive %s[Error]\n", operation, start);
  return result;
}

// True for a line that refuses and does not say that more follows. It need not have the space that
// ends a reply: waiting for more after "502" and CR LF would only end in a time-out.
bool is_short_refusal(const char* line) {
  constexpr size_t kCode = 3;
  return line[0] != kReplySuccess && (std::strlen(line) <= kCode || line[kCode] != '-');
}

// Takes what one EHLO line announces. The line is "250-KEYWORD ..." or "250 KEYWORD ...".
void take_capability(const char* line, std::string& mechanisms, bool& has_auth,
                     smtp_ehlo_option& option, const bearer_method*& bearer) {
  constexpr size_t kKeyword = 4;
  constexpr size_t kMechanisms = 9;  // after "250-AUTH" and a space or an equals sign
  const size_t length = std::strlen(line);
  if (length <= kKeyword) return;
  if (begins_with_word(line + kKeyword, "AUTH")) {
    has_auth = true;
    mechanisms = length > kMechanisms ? line + kMechanisms : "";
    // A second line, for old clients, may name fewer methods.
    if (bearer == nullptr) bearer = find_bearer_method(mechanisms);
  } else if (begins_with_word(line + kKeyword, "STARTTLS")) {
    option.starttls = 1;
  }
}

// Reads the EHLO reply to its last line, also when it is a refusal: what is left unread would be
// taken for the reply to the next command. A refusal stays the verdict when its rest does not come.
TAV_EML_RESULT read_capabilities(smtp_dialogue& dialogue, smtp_ehlo_option& option,
                                 const bearer_method*& bearer) {
  std::string mechanisms;
  bool has_auth = false;
  TAV_EML_RESULT verdict = TAV_EML_OK;
  for (int count = 0; count < kMaxReplyLines; ++count) {
    const char* const line = dialogue.reply();
    long size = SMTP_BUFFER_SIZE;
    const TAV_EML_RESULT result = dialogue.read_whole_line(dialogue.reply(), size);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::%s: recv_one_line return 0x%08x[Error]\n", kEhlo,
                        log_code(result));
      return verdict != TAV_EML_OK ? verdict : result;
    }
    if (verdict == TAV_EML_OK) {
      verdict = judge_reply(line, kReplySuccess);
      if (verdict != TAV_EML_OK) refused(kEhlo, line, verdict);
    }
    if (verdict == TAV_EML_OK) take_capability(line, mechanisms, has_auth, option, bearer);
    if (is_last_line(line, size) || is_short_refusal(line)) {
      if (verdict == TAV_EML_OK && has_auth) take_login_methods(mechanisms, option);
      return verdict;
    }
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: reply of more than %d lines[Error]\n", kEhlo,
                    kMaxReplyLines);
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT send_name(smtp_dialogue& dialogue, const tav_eml_smtp_settings& settings,
                         const char* verb, const char* operation) {
  const TAV_EML_RESULT result = dialogue.send_command(verb, text_of(settings.helo_domain), "\r\n");
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: SendData return 0x%08x[Error]\n", operation,
                      log_code(result));
  }
  return result;
}

}  // namespace

TAV_EML_RESULT send_helo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  if (!is_usable(settings, session, kHelo, ": smtpset == 0", ": send_buffer == 0")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  smtp_dialogue dialogue(*session, *settings);
  TAV_EML_RESULT result = send_name(dialogue, *settings, "HELO ", kHelo);
  if (result != TAV_EML_OK) return result;
  result = dialogue.read_reply();
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: RecvOneLineinFullRcv return 0x%08x[Error]\n",
                      kHelo, log_code(result));
    return result;
  }
  result = judge_reply(dialogue.reply(), kReplySuccess);
  return result == TAV_EML_OK ? result : refused(kHelo, dialogue.reply(), result);
}

TAV_EML_RESULT send_ehlo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                         smtp_ehlo_option& option) {
  const bearer_method* ignored = nullptr;
  return send_ehlo(settings, session, option, ignored);
}

TAV_EML_RESULT send_ehlo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                         smtp_ehlo_option& option, const bearer_method*& bearer) {
  if (!is_usable(settings, session, kEhlo, ": smtpset == 0", ": send_buffer == 0")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded(kEhlo, [&] {
    smtp_dialogue dialogue(*session, *settings);
    const TAV_EML_RESULT result = send_name(dialogue, *settings, "EHLO ", kEhlo);
    return result == TAV_EML_OK ? read_capabilities(dialogue, option, bearer) : result;
  });
}

TAV_EML_RESULT send_ehlo_or_helo(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  constexpr char kName[] = "tav_eml_smtp_pnon_auth_ehlo";
  smtp_ehlo_option ignored = {};
  TAV_EML_RESULT result = send_ehlo(settings, session, ignored);
  if (result == TAV_EML_OK) return result;
  called_failure(kName, kEhlo, result);
  result = send_helo(settings, session);
  if (result == TAV_EML_OK) return result;
  called_failure(kName, kHelo, result);
  if (session != nullptr) close_connection(*session);
  return result;
}

}  // namespace quorvelmida
