// SMTP AUTH (RFC 4954): the choice of the method, and the two that send the password itself.

#include <cstring>
#include <string>

#include "login_exchange.h"
#include "clb.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_auth";
constexpr int32_t kSmtpAuth = 1;
constexpr int32_t kPopBeforeSmtpAndAuth = 3;

bool has_method(const smtp_ehlo_option& option) {
  return option.cram_md5 != 0 || option.digest_md5 != 0 || option.plain != 0 || option.login != 0;
}

// One line for each method: a failure clears the method's flag.
TAV_EML_RESULT note_failure(TAV_EML_RESULT result, const char* method, int32_t& flag) {
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: %s return 0x%x[Error]\n", kName, method,
                      log_code(result));
    flag = 0;
  }
  return result;
}

// PLAIN: NUL user NUL password, without an authorisation identity. They are made in the reply's
// buffer, and wiped before the reply comes.
TAV_EML_RESULT send_identity(ntssmtp_fileptr& session, const UtlString& user,
                             const UtlString& password, long timeout, const answer_texts& texts) {
  const size_t length = user.GetLength() + password.GetLength() + 2;
  if (length > SMTP_BUFFER_SIZE) {
    TAV_EML_LOG_ERROR("%s", texts.send);
    return TAV_EML_ERR_PARAM;
  }
  const wipe_at_end wiper(session.recv_buffer, length);
  char* out = session.recv_buffer;
  *out++ = '\0';
  std::memcpy(out, text_of(user), user.GetLength());
  out += user.GetLength();
  *out++ = '\0';
  std::memcpy(out, text_of(password), password.GetLength());
  return send_answer(session, "AUTH PLAIN ", {session.recv_buffer, length}, SMTP_BUFFER_SIZE,
                     timeout, texts);
}

TAV_EML_RESULT run_first_method(tav_eml_smtp_command& command,
                                const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session,
                                smtp_ehlo_option& untried) {
  const UtlString& user = settings.user_id;
  const UtlString& password = settings.password;
  const long timeout = timeout_ms(settings);
  if (untried.cram_md5 != 0) {
    return note_failure(command.tav_eml_smtp_auth_cram_md5(user, password, session, timeout),
                        "tav_eml_smtp_auth_cram_md5", untried.cram_md5);
  }
  if (untried.digest_md5 != 0) {
    return note_failure(command.tav_eml_smtp_auth_digest_md5(&settings, &session),
                        "tav_eml_smtp_auth_digest_md5", untried.digest_md5);
  }
  if (untried.plain != 0) {
    return note_failure(command.tav_eml_smtp_auth_plain(user, password, session, timeout),
                        "tav_eml_smtp_auth_plain", untried.plain);
  }
  if (untried.login != 0) {
    return note_failure(command.tav_eml_smtp_auth_login(user, password, session, timeout),
                        "tav_eml_smtp_auth_login", untried.login);
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: Unknown AuthKind[Error]\n", kName);
  return TAV_EML_ERR_AUTH_METHOD;
}

// What a LOGIN prompt asks for; null when it is neither.
const UtlString* find_answer(const std::string& prompt, const UtlString& user,
                             const UtlString& password) {
  constexpr size_t kPrompt = 8;
  if (clb_CompStrCaseN(prompt.c_str(), "Username", kPrompt) == 0) return &user;
  if (clb_CompStrCaseN(prompt.c_str(), "Password", kPrompt) == 0) return &password;
  return nullptr;
}

// Answers one prompt.
TAV_EML_RESULT answer_prompt(ntssmtp_fileptr& session, const UtlString& user,
                             const UtlString& password, long timeout) {
  constexpr size_t kAnswerArea = 128;
  static constexpr answer_texts kTexts = {
      "tav_eml_smtp_command::tav_eml_smtp_auth_login : to_b64 NG[Error]\n",
      "tav_eml_smtp_command::tav_eml_smtp_auth_login : Send NG[Error]\n"};
  std::string prompt;
  if (!decode_challenge(session.recv_buffer, prompt)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_login : from_b64 NG[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  const UtlString* answer = find_answer(prompt, user, password);
  if (answer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_login : NO![Error]\n");
    return TAV_EML_ERR_AUTH_METHOD;
  }
  return send_answer(session, "", text_of(*answer), kAnswerArea, timeout, kTexts);
}

}  // namespace

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth(const tav_eml_smtp_settings* settings,
                                                       ntssmtp_fileptr* session,
                                                       smtp_ehlo_option& untried) {
  if (!is_usable(settings, session,
                 "tav_eml_smtp_command::tav_eml_smtp_auth : smtpset == 0[Error]\n",
                 "tav_eml_smtp_command::tav_eml_smtp_auth : send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  if (settings->auth_kind != kSmtpAuth && settings->auth_kind != kPopBeforeSmtpAndAuth) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth : Invalid auth_kind[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  if (settings->user_id.IsEmpty()) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: UsrID None[Error]\n", kName);
    return TAV_EML_ERR_AUTH;
  }

  // Always the reply to this EHLO: what was announced before TLS does not count.
  smtp_ehlo_option announced = {};
  const TAV_EML_RESULT result = SendEhloCommand(settings, session, announced);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: SendEhloCommand returns [0x%08x][Error]\n", kName,
                      log_code(result));
    return result;
  }
  if (!has_method(untried)) untried = announced;
  return run_first_method(*this, *settings, *session, untried);
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_plain(const UtlString& user,
                                                             const UtlString& password,
                                                             ntssmtp_fileptr& session,
                                                             long timeout) {
  static constexpr answer_texts kTexts = {
      "tav_eml_smtp_command::tav_eml_smtp_auth_plain : to_b64 NG[Error]\n",
      "tav_eml_smtp_command::tav_eml_smtp_auth_plain : SendData NG[Error]\n"};
  if (!has_buffers(session,
                   "tav_eml_smtp_command::tav_eml_smtp_auth_plain : send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("tav_eml_smtp_auth_plain", [&] {
    TAV_EML_RESULT result = send_identity(session, user, password, timeout, kTexts);
    if (result != TAV_EML_OK) return result;
    result = read_reply(session, timeout);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_plain : recv_data NG[Error]\n");
      return result;
    }
    result = judge_login(session.recv_buffer);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_plain : Recv resp NG[Error]\n");
    }
    return result;
  });
}

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_login(const UtlString& user,
                                                             const UtlString& password,
                                                             ntssmtp_fileptr& session,
                                                             long timeout) {
  constexpr int kMaxPrompts = 100;
  if (!has_buffers(session,
                   "tav_eml_smtp_command::tav_eml_smtp_auth_login : send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("tav_eml_smtp_auth_login", [&] {
    TAV_EML_RESULT result = send_command(session, timeout, "AUTH LOGIN\r\n");
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_login : Send NG[Error]\n");
      return result;
    }
    // Prompts are answered in whatever order they come.
    for (int prompts = 0; prompts <= kMaxPrompts; ++prompts) {
      result = read_reply(session, timeout);
      if (result != TAV_EML_OK) {
        TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_login : recv_data NG[Error]\n");
        return result;
      }
      if (session.recv_buffer[0] != kReplyContinue) {
        result = judge_login(session.recv_buffer);
        if (result != TAV_EML_OK) {
          TAV_EML_LOG_ERROR(
              "tav_eml_smtp_command::tav_eml_smtp_auth_login : Recv resp NG[Error]\n");
        }
        return result;
      }
      if (prompts < kMaxPrompts) result = answer_prompt(session, user, password, timeout);
      if (result != TAV_EML_OK) return result;
    }
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s : more than %d prompts[Error]\n",
                      "tav_eml_smtp_auth_login", kMaxPrompts);
    return TAV_EML_ERR_REPLY;
  });
}

}  // namespace quorvelmida
