// PLAIN (RFC 4616) and LOGIN: the methods that send the password itself.

#include <cstring>
#include <string>

#include "clb.h"
#include "common/log.h"
#include "common/secret.h"
#include "common/text.h"
#include "login.h"
#include "login_exchange.h"
#include "smtp_log.h"

namespace quorvelmida {

namespace {

constexpr char kPlainLogin[] = "tav_eml_smtp_auth_plain";
constexpr char kLogin[] = "tav_eml_smtp_auth_login";

// NUL user NUL password, without an authorisation identity. They are made in the reply's buffer,
// and wiped before the reply comes.
TAV_EML_RESULT send_identity(const login_account& account, smtp_dialogue& dialogue) {
  static constexpr answer_texts kTexts = {kPlainLogin, " : to_b64 NG", " : SendData NG",
                                          " : SendData NG"};
  const size_t length = account.user.GetLength() + account.password.GetLength() + 2;
  if (length > SMTP_BUFFER_SIZE)
    return command_failure(kPlainLogin, kTexts.send, TAV_EML_ERR_PARAM);
  char* out = dialogue.reply();
  const wipe_at_end wiper(out, length);
  *out++ = '\0';
  std::memcpy(out, text_of(account.user), account.user.GetLength());
  out += account.user.GetLength();
  *out++ = '\0';
  std::memcpy(out, text_of(account.password), account.password.GetLength());
  return send_answer(dialogue, "AUTH PLAIN ", {dialogue.reply(), length}, SMTP_BUFFER_SIZE, kTexts);
}

// What a LOGIN prompt asks for; null when it is neither.
const UtlString* find_answer(const std::string& prompt, const login_account& account) {
  constexpr size_t kPrompt = 8;
  if (clb_CompStrCaseN(prompt.c_str(), "Username", kPrompt) == 0) return &account.user;
  if (clb_CompStrCaseN(prompt.c_str(), "Password", kPrompt) == 0) return &account.password;
  return nullptr;
}

// Answers the prompt of the latest reply.
TAV_EML_RESULT answer_prompt(const login_account& account, smtp_dialogue& dialogue) {
  constexpr size_t kAnswerArea = 128;
  static constexpr answer_texts kTexts = {kLogin, " : to_b64 NG", " : Send NG", " : Send NG"};
  std::string prompt;
  if (!decode_challenge(dialogue.reply(), prompt)) {
    return command_failure(kLogin, " : from_b64 NG", TAV_EML_ERR_UNKNOWN);
  }
  const UtlString* answer = find_answer(prompt, account);
  if (answer == nullptr) return command_failure(kLogin, " : NO!", TAV_EML_ERR_AUTH_METHOD);
  return send_answer(dialogue, "", text_of(*answer), kAnswerArea, kTexts);
}

}  // namespace

TAV_EML_RESULT log_in_with_plain(const login_account& account, smtp_dialogue& dialogue) {
  static constexpr exchange_texts kTexts = {kPlainLogin, nullptr, " : recv_data NG",
                                            " : Recv resp NG"};
  const TAV_EML_RESULT result = send_identity(account, dialogue);
  return result == TAV_EML_OK ? end_login(dialogue, kTexts) : result;
}

TAV_EML_RESULT log_in_with_login(const login_account& account, smtp_dialogue& dialogue) {
  constexpr int kMaxPrompts = 100;
  static constexpr exchange_texts kTexts = {kLogin, " : Send NG", " : recv_data NG",
                                            " : Recv resp NG"};
  TAV_EML_RESULT result = dialogue.send_command("AUTH LOGIN\r\n");
  if (result != TAV_EML_OK) return command_failure(kLogin, kTexts.send, result);
  // Prompts are answered in whatever order they come.
  for (int prompts = 0; prompts <= kMaxPrompts; ++prompts) {
    result = dialogue.read_reply(kTexts);
    if (result != TAV_EML_OK) return result;
    if (dialogue.reply()[0] != kReplyContinue) return judge_login(dialogue, kTexts);
    if (prompts < kMaxPrompts) result = answer_prompt(account, dialogue);
    if (result != TAV_EML_OK) return result;
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s : more than %d prompts[Error]\n", kLogin,
                    kMaxPrompts);
  return TAV_EML_ERR_REPLY;
}

}  // namespace quorvelmida
