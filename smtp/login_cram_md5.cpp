// SMTP AUTH with CRAM-MD5 (RFC 2195).

#include <string>

#include "common/secret.h"
#include "common/text.h"
#include "login.h"
#include "login_exchange.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "smtp_log.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_auth_cram_md5";
constexpr size_t kLongestKey = 64;
constexpr size_t kDigestText = 33;
constexpr size_t kDigest = 16;

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

TAV_EML_RESULT ask_for_challenge(smtp_dialogue& dialogue, std::string& challenge) {
  static constexpr exchange_texts kTexts = {kName, ": SendData NG1", ": RecvOneLineinFullRcv NG",
                                            ": Recv resp NG1"};
  const TAV_EML_RESULT result = dialogue.ask(kReplyContinue, kTexts, "AUTH CRAM-MD5\r\n");
  if (result != TAV_EML_OK || decode_challenge(dialogue.reply(), challenge)) return result;
  return command_failure(kName, ": from_b64 NG", TAV_EML_ERR_UNKNOWN);
}

}  // namespace

TAV_EML_RESULT log_in_with_cram_md5(const login_account& account, smtp_dialogue& dialogue) {
  static constexpr answer_texts kAnswer = {kName, ": to_b64 NG", ": SendData NG2",
                                           ": SendData NG2"};
  static constexpr exchange_texts kEnd = {kName, nullptr, ": recv_data NG2", ": Recv resp NG2"};
  std::string challenge;
  TAV_EML_RESULT result = ask_for_challenge(dialogue, challenge);
  if (result != TAV_EML_OK) return result;

  secret_array<kDigestText> digits;
  keyed_digest(challenge, account.password, digits.data);
  std::string answer = joined({text_of(account.user), " ", digits.data});
  const wipe_at_end wiper(answer.data(), answer.size());
  result = send_answer(dialogue, "", answer, SMTP_BUFFER_SIZE, kAnswer);
  return result == TAV_EML_OK ? end_login(dialogue, kEnd) : result;
}

}  // namespace quorvelmida
