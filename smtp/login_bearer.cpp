// SMTP AUTH with an OAuth 2.0 access token: OAUTHBEARER (RFC 7628) and XOAUTH2.

#include "login_bearer.h"

#include "login_exchange.h"
#include "smtp_log.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_auth_bearer";
constexpr exchange_texts kTexts = {kName, ": Send NG", ": Recv NG", ": Recv resp NG"};

// Sends a line with the token from a buffer that is wiped.
TAV_EML_RESULT send_secret(smtp_dialogue& dialogue, const char* before, std::string_view secret) {
  secret_buffer line;
  if (!make_secret_line(before, secret, line)) {
    return command_failure(kName, ": line NG", TAV_EML_ERR_NO_MEMORY);
  }
  const TAV_EML_RESULT result = dialogue.send_all(line.data(), line.length());
  return result == TAV_EML_OK ? result : command_failure(kName, kTexts.send, result);
}

// Sends the message in the AUTH line, or after an empty challenge if the line would be too long.
TAV_EML_RESULT send_message(smtp_dialogue& dialogue, const bearer_method& method,
                            std::string_view message) {
  constexpr int64_t kLongestCommand = 512;  // RFC 5321 4.5.3.1.4
  if (secret_line_length(method.command_with_message, message) <= kLongestCommand) {
    return send_secret(dialogue, method.command_with_message, message);
  }
  TAV_EML_RESULT result = dialogue.send_command(method.command);
  if (result != TAV_EML_OK) return command_failure(kName, kTexts.send, result);
  result = dialogue.read_reply(kTexts);
  if (result != TAV_EML_OK) return result;
  return dialogue.reply()[0] == kReplyContinue ? send_secret(dialogue, "", message)
                                               : refuse_login(dialogue, kTexts);
}

}  // namespace

TAV_EML_RESULT log_in_with_bearer(const bearer_login& login, const bearer_method& method,
                                  const bearer_token& token, smtp_dialogue& dialogue) {
  secret_buffer message;
  if (!token.make_message(login, method, message)) {
    return command_failure(kName, ": message NG", TAV_EML_ERR_NO_MEMORY);
  }
  TAV_EML_RESULT result = send_message(dialogue, method, message.view());
  if (result != TAV_EML_OK) return result;
  result = dialogue.read_reply(kTexts);
  if (result != TAV_EML_OK) return result;
  if (dialogue.reply()[0] != kReplyContinue) return judge_login(dialogue, kTexts);
  // What went wrong, in JSON. The refusal comes after an answer.
  result = send_secret(dialogue, "", method.answer_to_error);
  if (result == TAV_EML_OK) result = dialogue.read_reply(kTexts);
  return result == TAV_EML_OK ? refuse_login(dialogue, kTexts) : result;
}

}  // namespace quorvelmida
