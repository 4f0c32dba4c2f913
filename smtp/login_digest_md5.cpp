// SMTP AUTH with DIGEST-MD5 (RFC 2831), quality of protection "auth".

#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>
#include <string_view>

#include "codec/base64.h"
#include "common/log.h"
#include "common/secret.h"
#include "common/text.h"
#include "login.h"
#include "login_exchange.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "smtp_log.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_auth_digest_md5";
constexpr long kArea = 1536;  // a field, its NUL included
constexpr long kChallengeArea = 2048;
constexpr long kResponseArea = 4096;
constexpr size_t kDigestText = 33;
constexpr size_t kDigest = 16;

TAV_EML_RESULT failed(TAV_EML_RESULT result, const char* step) {
  return command_failure(kName, step, result);
}

// A text of bounded length, wiped when it goes. What does not fit is refused.
class text_area {
 public:
  // `name` is what the log calls it.
  bool allocate(const char* name, long capacity) {
    m_lCapacity = capacity;
    if (!m_cText.allocate(capacity - 1)) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: %s == NULL[Error]\n", kName, name);
      return false;
    }
    m_cText.set_length(capacity);  // all of it is wiped
    return true;
  }
  bool append(std::string_view text) {
    if (text.size() >= static_cast<size_t>(m_lCapacity) - m_uLength) return false;
    std::memcpy(m_cText.data() + m_uLength, text.data(), text.size());
    m_uLength += text.size();
    m_cText.data()[m_uLength] = '\0';
    return true;
  }
  bool set(std::initializer_list<std::string_view> texts) {
    m_uLength = 0;
    for (const std::string_view text : texts) {
      if (!append(text)) return false;
    }
    return true;
  }
  char* room() { return m_cText.data(); }
  const char* text() const { return m_cText.data(); }
  std::string_view view() const { return {m_cText.data(), m_uLength}; }

 private:
  secret_buffer m_cText;
  long m_lCapacity = 0;
  size_t m_uLength = 0;
};

// Everything that the answer is made of.
struct digest_fields {
  text_area realm;
  text_area nonce;
  text_area qop;
  text_area server_name;
  text_area digest_uri;
  text_area work;
  std::string cnonce;

  bool allocate() {
    return realm.allocate("realm", kArea) && nonce.allocate("nonce", kArea) &&
           qop.allocate("qop", kArea) && server_name.allocate("server_name", kArea) &&
           digest_uri.allocate("digest_uri", kArea) && work.allocate("tmp", kArea);
  }
};

// Copies what comes after `label` and one more character, up to one of `ends`. `missing` is logged
// when it is not there.
TAV_EML_RESULT take_field(std::string_view challenge, std::string_view label, const char* ends,
                          const char* missing, text_area& field) {
  const size_t found = challenge.find(label);
  const size_t start = found + label.size() + 1;
  const size_t end = found != std::string_view::npos ? challenge.find_first_of(ends, start)
                                                     : std::string_view::npos;
  if (end == std::string_view::npos) return failed(TAV_EML_ERR_AUTH_METHOD, missing);
  const bool fits = field.set({challenge.substr(start, end - start)});
  return fits ? TAV_EML_OK : failed(TAV_EML_ERR_REPLY, ": challenge too long");
}

TAV_EML_RESULT parse_challenge(const std::string& challenge, digest_fields& fields) {
  TAV_EML_RESULT result = take_field(challenge, "realm=", "\"", ": No realm", fields.realm);
  if (result == TAV_EML_OK) {
    result = take_field(challenge, "nonce=", "\"", ": No nonce", fields.nonce);
  }
  // Of several values the first: servers put "auth" there.
  if (result == TAV_EML_OK) result = take_field(challenge, "qop=", ",\"", ": No qop", fields.qop);
  return result;
}

// The client's nonce depends on the clock alone.
TAV_EML_RESULT make_cnonce(std::string& cnonce) {
  char stamp[40];
  std::snprintf(stamp, sizeof stamp, "quorvelmida%08lx",
                static_cast<unsigned long>(std::time(nullptr)));
  utl_buffer encoded;
  if (!to_base64(stamp, static_cast<long>(std::strlen(stamp)), 0, encoded)) {
    return failed(TAV_EML_ERR_UNKNOWN, ": to_b64 NG2");
  }
  cnonce = encoded.view();
  return TAV_EML_OK;
}

void hash_text(const char* text, char* digits) {
  tav_eml_mlutl_mail_hash().GetMD5Hash(text, digits);
}

// HA1. The digest of user, realm and password is followed by the nonces as text, so it counts only
// up to its first zero byte.
bool make_ha1(const login_account& account, digest_fields& fields, char* digits) {
  if (!fields.work.set(
          {text_of(account.user), ":", fields.realm.view(), ":", text_of(account.password)})) {
    return false;
  }
  secret_array<kDigestText> first;
  secret_array<kDigest> raw;
  hash_text(fields.work.text(), first.data);
  digest_bytes(first.data, raw.data);
  if (!fields.work.set(
          {std::string_view(raw.data, kDigest), ":", fields.nonce.view(), ":", fields.cnonce})) {
    return false;
  }
  hash_text(fields.work.text(), digits);
  return true;
}

TAV_EML_RESULT make_ha2(digest_fields& fields, char* digits) {
  const std::string_view qop = fields.qop.view();
  const char* body = nullptr;
  if (qop == "auth") body = "";
  if (qop == "auth-int" || qop == "auth-conf") body = ":00000000000000000000000000000000";
  if (body == nullptr) return failed(TAV_EML_ERR_AUTH_METHOD, ": no auth");
  if (!fields.work.set({"AUTHENTICATE:", fields.digest_uri.view(), body})) return TAV_EML_ERR_PARAM;
  hash_text(fields.work.text(), digits);
  return TAV_EML_OK;
}

TAV_EML_RESULT make_response(const login_account& account, digest_fields& fields, char* digits) {
  secret_array<kDigestText> ha1;
  secret_array<kDigestText> ha2;
  if (!make_ha1(account, fields, ha1.data)) return TAV_EML_ERR_PARAM;
  const TAV_EML_RESULT result = make_ha2(fields, ha2.data);
  if (result != TAV_EML_OK) return result;
  if (!fields.work.set({ha1.data, ":", fields.nonce.view(), ":00000001:", fields.cnonce, ":",
                        fields.qop.view(), ":", ha2.data})) {
    return TAV_EML_ERR_PARAM;
  }
  hash_text(fields.work.text(), digits);
  return TAV_EML_OK;
}

TAV_EML_RESULT make_answer(const login_account& account, digest_fields& fields, text_area& answer) {
  TAV_EML_RESULT result = make_cnonce(fields.cnonce);
  if (result != TAV_EML_OK) return result;
  secret_array<kDigestText> response;
  result = TAV_EML_ERR_PARAM;
  if (fields.server_name.set({account.server}) &&
      fields.digest_uri.set({"smtp/", fields.server_name.view()})) {
    result = make_response(account, fields, response.data);
  }
  if (result == TAV_EML_OK &&
      !answer.set({"charset=utf-8,username=\"", text_of(account.user), "\",", "realm=\"",
                   fields.realm.view(), "\",nonce=\"", fields.nonce.view(), "\",nc=00000001,",
                   "cnonce=\"", fields.cnonce, "\",digest-uri=\"", fields.digest_uri.view(), "\",",
                   "response=", response.data, ",qop=", fields.qop.view()})) {
    result = TAV_EML_ERR_PARAM;
  }
  return result == TAV_EML_ERR_PARAM ? failed(result, ": field too long") : result;
}

TAV_EML_RESULT ask_for_challenge(smtp_dialogue& dialogue, std::string& challenge) {
  TAV_EML_RESULT result = dialogue.send_command("AUTH DIGEST-MD5\r\n");
  if (result != TAV_EML_OK) return failed(result, ": Send1 NG");
  text_area line;
  if (!line.allocate("challenge", kChallengeArea)) return TAV_EML_ERR_NO_MEMORY;
  long size = kChallengeArea;
  result = read_whole_reply(dialogue, line.room(), size);
  if (result != TAV_EML_OK) return failed(result, ": Recv1 NG");
  const bool goes_on = judge_reply(line.text(), kReplyContinue) == TAV_EML_OK;
  if (!goes_on) return failed(TAV_EML_ERR_REPLY, ": Recv resp1 NG");
  const bool is_decoded = decode_challenge(line.text(), challenge);
  return is_decoded ? TAV_EML_OK : failed(TAV_EML_ERR_UNKNOWN, ": from_b64 NG");
}

// The verdict, with or without the server's own proof before it.
TAV_EML_RESULT finish(smtp_dialogue& dialogue) {
  static constexpr exchange_texts kFirst = {kName, nullptr, ": Recv NG2", ": Recv resp NG2"};
  static constexpr exchange_texts kSecond = {kName, ": Send NG3", ": Recv NG3", ": Recv resp NG3"};
  TAV_EML_RESULT result = dialogue.read_reply(kFirst);
  if (result != TAV_EML_OK) return result;
  if (dialogue.reply()[0] != kReplyContinue) return judge_login(dialogue, kFirst);
  result = dialogue.send_command("\r\n");
  return result == TAV_EML_OK ? end_login(dialogue, kSecond) : failed(result, kSecond.send);
}

}  // namespace

TAV_EML_RESULT log_in_with_digest_md5(const login_account& account, smtp_dialogue& dialogue) {
  static constexpr answer_texts kTexts = {kName, ": to_b64 NG3", ": Send NG2",
                                          ": response == NULL"};
  std::string challenge;
  TAV_EML_RESULT result = ask_for_challenge(dialogue, challenge);
  if (result != TAV_EML_OK) return result;

  digest_fields fields;
  if (!fields.allocate()) return TAV_EML_ERR_NO_MEMORY;
  result = parse_challenge(challenge, fields);
  if (result != TAV_EML_OK) return result;

  text_area answer;
  if (!answer.allocate("answer", kResponseArea)) return TAV_EML_ERR_NO_MEMORY;
  result = make_answer(account, fields, answer);
  if (result == TAV_EML_OK) {
    result = send_answer(dialogue, "", answer.view(), kResponseArea, kTexts);
  }
  return result == TAV_EML_OK ? finish(dialogue) : result;
}

}  // namespace quorvelmida
