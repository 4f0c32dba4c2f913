// SMTP AUTH with CRAM-MD5 (RFC 2195).

#include <cstring>
#include <string>

#include "login_exchange.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"

namespace quorvelmida {

namespace {

constexpr size_t kLongestKey = 64;
constexpr size_t kDigestText = 33;
constexpr size_t kDigest = 16;

TAV_EML_RESULT failed(TAV_EML_RESULT result, const char* step) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_cram_md5: %s[Error]\n", step);
  return result;
}

// The digest of the challenge under the password, as 32 digits. The key is a NUL-terminated text:
// that of a long password ends at the first zero byte of its digest.
void keyed_digest(const std::string& challenge, const UtlString& password, char* digits) {
  tav_eml_mlutl_mail_hash hash;
  if (password.GetLength() <= kLongestKey) {
    hash.GetHMACMD5Hash(challenge.c_str(), text_of(password), digits);
    return;
  }
  secret_array<kDigestText> reduced;
  secret_array<kDigest + 1> key;
  hash.GetMD5Hash(password.GetString(), reduced.data);
  digest_bytes(reduced.data, key.data);
  hash.GetHMACMD5Hash(challenge.c_str(), key.data, digits);
}

TAV_EML_RESULT ask_for_challenge(ntssmtp_fileptr& session, long timeout, std::string& challenge) {
  TAV_EML_RESULT result = send_command(session, timeout, "AUTH CRAM-MD5\r\n");
  if (result != TAV_EML_OK) return failed(result, "SendData NG1");
  result = read_reply(session, timeout);
  if (result != TAV_EML_OK) return failed(result, "RecvOneLineinFullRcv NG");
  result = judge_reply(session.recv_buffer, kReplyContinue);
  if (result != TAV_EML_OK) return failed(result, "Recv resp NG1");
  const bool is_decoded = decode_challenge(session.recv_buffer, challenge);
  return is_decoded ? TAV_EML_OK : failed(TAV_EML_ERR_UNKNOWN, "from_b64 NG");
}

TAV_EML_RESULT log_in(const UtlString& user, const UtlString& password, ntssmtp_fileptr& session,
                      long timeout) {
  static constexpr answer_texts kTexts = {
      "tav_eml_smtp_command::tav_eml_smtp_auth_cram_md5: to_b64 NG[Error]\n",
      "tav_eml_smtp_command::tav_eml_smtp_auth_cram_md5: SendData NG2[Error]\n"};
  std::string challenge;
  TAV_EML_RESULT result = ask_for_challenge(session, timeout, challenge);
  if (result != TAV_EML_OK) return result;

  secret_array<kDigestText> digits;
  keyed_digest(challenge, password, digits.data);
  std::string answer = joined({text_of(user), " ", digits.data});
  const wipe_at_end wiper(answer.data(), answer.size());
  result = send_answer(session, "", answer, SMTP_BUFFER_SIZE, timeout, kTexts);
  if (result != TAV_EML_OK) return result;

  result = read_reply(session, timeout);
  if (result != TAV_EML_OK) return failed(result, "recv_data NG2");
  result = judge_login(session.recv_buffer);
  return result == TAV_EML_OK ? result : failed(result, "Recv resp NG2");
}

}  // namespace

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_cram_md5(const UtlString& user,
                                                                const UtlString& password,
                                                                ntssmtp_fileptr& session,
                                                                long timeout) {
  if (!has_buffers(session,
                   "tav_eml_smtp_command::tav_eml_smtp_auth_cram_md5: send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("tav_eml_smtp_auth_cram_md5",
                 [&] { return log_in(user, password, session, timeout); });
}

}  // namespace quorvelmida
