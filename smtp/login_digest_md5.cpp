// SMTP AUTH with DIGEST-MD5 (RFC 2831), quality of protection "auth".

#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>
#include <string_view>

#include "login_exchange.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

constexpr long kArea = 1536;  // a field, its NUL included
constexpr long kChallengeArea = 2048;
constexpr long kResponseArea = 4096;
constexpr size_t kDigestText = 33;
constexpr size_t kDigest = 16;

TAV_EML_RESULT failed(TAV_EML_RESULT result, const char* step) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5: %s[Error]\n", step);
  return result;
}

// A text of bounded length, wiped when it goes. What does not fit is refused.
class text_area {
 public:
  // `name` is what the log calls it.
  bool allocate(const char* name, long capacity) {
    m_lCapacity = capacity;
    if (!m_cText.allocate(capacity - 1)) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5: %s == NULL[Error]\n",
                        name);
      return false;
    }
    m_cText.length() = capacity;  // all of it is wiped
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

// Copies what stands behind `label` and one more character, up to one of `ends`. `missing` is
// logged when it is not there.
TAV_EML_RESULT take_field(std::string_view challenge, std::string_view label, const char* ends,
                          const char* missing, text_area& field) {
  const size_t found = challenge.find(label);
  const size_t start = found + label.size() + 1;
  const size_t end = found != std::string_view::npos ? challenge.find_first_of(ends, start)
                                                     : std::string_view::npos;
  if (end == std::string_view::npos) return failed(TAV_EML_ERR_AUTH_METHOD, missing);
  const bool fits = field.set({challenge.substr(start, end - start)});
  return fits ? TAV_EML_OK : failed(TAV_EML_ERR_REPLY, "challenge too long");
}

TAV_EML_RESULT parse_challenge(const std::string& challenge, digest_fields& fields) {
  TAV_EML_RESULT result = take_field(challenge, "realm=", "\"", "No realm", fields.realm);
  if (result == TAV_EML_OK) {
    result = take_field(challenge, "nonce=", "\"", "No nonce", fields.nonce);
  }
  // Of several values the first: servers put "auth" there.
  if (result == TAV_EML_OK) result = take_field(challenge, "qop=", ",\"", "No qop", fields.qop);
  return result;
}

// The client's nonce depends on the clock alone.
TAV_EML_RESULT make_cnonce(std::string& cnonce) {
  char stamp[40];
  std::snprintf(stamp, sizeof stamp, "quorvelmida%08lx",
                static_cast<unsigned long>(std::time(nullptr)));
  utl_buffer encoded;
  const int is_encoded = tav_eml_mlutl_mime_utility::to_b64(
      stamp, static_cast<long>(std::strlen(stamp)), encoded.data(), encoded.length(), 0);
  if (is_encoded == 0) return failed(TAV_EML_ERR_UNKNOWN, "to_b64 NG2");
  cnonce = encoded.data();
  return TAV_EML_OK;
}

void hash_text(const char* text, char* digits) {
  tav_eml_mlutl_mail_hash().GetMD5Hash(text, digits);
}

// HA1. The digest of user, realm and password is followed by the nonces as text, so it counts only
// up to its first zero byte.
bool make_ha1(const tav_eml_smtp_settings& settings, digest_fields& fields, char* digits) {
  if (!fields.work.set(
          {text_of(settings.user_id), ":", fields.realm.view(), ":", text_of(settings.password)})) {
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
  if (body == nullptr) return failed(TAV_EML_ERR_AUTH_METHOD, "no auth");
  if (!fields.work.set({"AUTHENTICATE:", fields.digest_uri.view(), body})) return TAV_EML_ERR_PARAM;
  hash_text(fields.work.text(), digits);
  return TAV_EML_OK;
}

TAV_EML_RESULT make_response(const tav_eml_smtp_settings& settings, digest_fields& fields,
                             char* digits) {
  secret_array<kDigestText> ha1;
  secret_array<kDigestText> ha2;
  if (!make_ha1(settings, fields, ha1.data)) return TAV_EML_ERR_PARAM;
  const TAV_EML_RESULT result = make_ha2(fields, ha2.data);
  if (result != TAV_EML_OK) return result;
  if (!fields.work.set({ha1.data, ":", fields.nonce.view(), ":00000001:", fields.cnonce, ":",
                        fields.qop.view(), ":", ha2.data})) {
    return TAV_EML_ERR_PARAM;
  }
  hash_text(fields.work.text(), digits);
  return TAV_EML_OK;
}

TAV_EML_RESULT make_answer(const tav_eml_smtp_settings& settings, digest_fields& fields,
                           text_area& answer) {
  TAV_EML_RESULT result = make_cnonce(fields.cnonce);
  if (result != TAV_EML_OK) return result;
  secret_array<kDigestText> response;
  result = TAV_EML_ERR_PARAM;
  if (fields.server_name.set({text_of(settings.server)}) &&
      fields.digest_uri.set({"smtp/", fields.server_name.view()})) {
    result = make_response(settings, fields, response.data);
  }
  if (result == TAV_EML_OK &&
      !answer.set({"charset=utf-8,username=\"", text_of(settings.user_id), "\",", "realm=\"",
                   fields.realm.view(), "\",nonce=\"", fields.nonce.view(), "\",nc=00000001,",
                   "cnonce=\"", fields.cnonce, "\",digest-uri=\"", fields.digest_uri.view(), "\",",
                   "response=", response.data, ",qop=", fields.qop.view()})) {
    result = TAV_EML_ERR_PARAM;
  }
  return result == TAV_EML_ERR_PARAM ? failed(result, "field too long") : result;
}

TAV_EML_RESULT ask_for_challenge(ntssmtp_fileptr& session, long timeout, std::string& challenge) {
  TAV_EML_RESULT result = send_command(session, timeout, "AUTH DIGEST-MD5\r\n");
  if (result != TAV_EML_OK) return failed(result, "Send1 NG");
  text_area line;
  if (!line.allocate("challenge", kChallengeArea)) return TAV_EML_ERR_NO_MEMORY;
  long size = kChallengeArea;
  result = tav_eml_smtp_command().RecvOneLineinFullRcv(session.sock, line.room(), size, 0, timeout,
                                                       session.tls_info);
  if (result != TAV_EML_OK) return failed(result, "Recv1 NG");
  const bool goes_on = judge_reply(line.text(), kReplyContinue) == TAV_EML_OK;
  if (!goes_on) return failed(TAV_EML_ERR_REPLY, "Recv resp1 NG");
  const bool is_decoded = decode_challenge(line.text(), challenge);
  return is_decoded ? TAV_EML_OK : failed(TAV_EML_ERR_UNKNOWN, "from_b64 NG");
}

// The verdict, with or without the server's own proof before it.
TAV_EML_RESULT finish(ntssmtp_fileptr& session, long timeout) {
  TAV_EML_RESULT result = read_reply(session, timeout);
  if (result != TAV_EML_OK) return failed(result, "Recv NG2");
  if (session.recv_buffer[0] != kReplyContinue) {
    result = judge_login(session.recv_buffer);
    return result == TAV_EML_OK ? result : failed(result, "Recv resp NG2");
  }
  result = send_command(session, timeout, "\r\n");
  if (result != TAV_EML_OK) return failed(result, "Send NG3");
  result = read_reply(session, timeout);
  if (result != TAV_EML_OK) return failed(result, "Recv NG3");
  result = judge_login(session.recv_buffer);
  return result == TAV_EML_OK ? result : failed(result, "Recv resp NG3");
}

TAV_EML_RESULT log_in(const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session) {
  static constexpr answer_texts kTexts = {
      "tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5: to_b64 NG3[Error]\n",
      "tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5: Send NG2[Error]\n",
      "tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5: response == NULL[Error]\n"};
  const long timeout = timeout_ms(settings);
  std::string challenge;
  TAV_EML_RESULT result = ask_for_challenge(session, timeout, challenge);
  if (result != TAV_EML_OK) return result;

  digest_fields fields;
  if (!fields.allocate()) return TAV_EML_ERR_NO_MEMORY;
  result = parse_challenge(challenge, fields);
  if (result != TAV_EML_OK) return result;

  text_area answer;
  if (!answer.allocate("answer", kResponseArea)) return TAV_EML_ERR_NO_MEMORY;
  result = make_answer(settings, fields, answer);
  if (result == TAV_EML_OK) {
    result = send_answer(session, "", answer.view(), kResponseArea, timeout, kTexts);
  }
  return result == TAV_EML_OK ? finish(session, timeout) : result;
}

}  // namespace

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5(
    const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session) {
  if (!is_usable(
          settings, session,
          "tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5 : smtpset == 0[Error]\n",
          "tav_eml_smtp_command::tav_eml_smtp_auth_digest_md5 : send_buffer == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("tav_eml_smtp_auth_digest_md5", [&] { return log_in(*settings, *session); });
}

}  // namespace quorvelmida
