#include "pop3_login.h"

#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "common/secret.h"
#include "common/text.h"
#include "pop3_bearer_login.h"
#include "pop3_log.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "stls.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "connect_start";
constexpr size_t kDigestSize = 33;

// Greatest length of "USER", "PASS" and "APOP" lines. RFC 2449 lets a server refuse lines of more
// than 255 bytes, but many take longer ones.
constexpr size_t kMaxCommand = 1024;

// A connection that is closed again unless it is handed over.
class new_connection {
 public:
  explicit new_connection(const tav_eml_pop3_settings& settings) : m_cSettings(settings) {}
  new_connection(const new_connection&) = delete;
  new_connection& operator=(const new_connection&) = delete;
  ~new_connection() { close_connection(m_nSock, m_cTls); }

  pop3_connection view() { return {&m_cSettings, m_nSock, m_cTls}; }

  void hand_over(int& sock, TAV_EML_TLS_INFO& tls) {
    sock = m_nSock;
    if (m_cSettings.m_ucTLSMode != kPlain) tls = m_cTls;
    m_nSock = 0;
    m_cTls = TAV_EML_TLS_INFO();
  }

 private:
  const tav_eml_pop3_settings& m_cSettings;
  int m_nSock = 0;
  TAV_EML_TLS_INFO m_cTls = {};
};

bool fits_command(const char* text, size_t verb_length) {
  return has_no_control(text) && verb_length + std::strlen(text) < kMaxCommand;
}

// What can be refused before anything is sent.
TAV_EML_RESULT check_settings(const tav_eml_pop3_settings& settings) {
  if (settings.m_ucTLSMode > kUpgradedTls) {
    // An unknown mode must not come to mean plain text.
    return pop3_failure(kName, " unknown TLS mode.", TAV_EML_ERR_PARAM);
  }
  constexpr size_t kApopLength = sizeof "APOP  \r\n" + kDigestSize;
  constexpr size_t kPassLength = sizeof "PASS \r\n";
  if (!fits_command(text_of(settings.m_strUserID), kApopLength) ||
      !fits_command(text_of(settings.m_strPassword), kPassLength)) {
    return pop3_failure(kName, " invalid user id or password.", TAV_EML_ERR_PARAM);
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT called_failure(const char* called, TAV_EML_RESULT result, int line) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s(): %s() returns [0x%08lx]: Line%d\n", kName,
                    called, log_long_code(result), line);
  return result;
}

TAV_EML_RESULT read_reply(pop3_connection& link, utl_buffer& reply) {
  const TAV_EML_RESULT result = link.read_reply(reply);
  return result == TAV_EML_OK ? result : called_failure("ReadResponse", result, __LINE__);
}

// Closes the connection and logs why.
TAV_EML_RESULT refuse(pop3_connection& link, const char* why, TAV_EML_RESULT result) {
  link.close();
  return pop3_failure(kName, why, result);
}

// Sends "verb first second" and reads the reply. The line is wiped: it may hold a password.
TAV_EML_RESULT exchange(pop3_connection& link, const char* verb, const char* first,
                        const char* second, utl_buffer& reply) {
  secret_array<kMaxCommand + 1> line;
  char* out = line.data;
  for (const char* text : {verb, " ", first, *second != '\0' ? " " : "", second, "\r\n"}) {
    const size_t length = std::strlen(text);
    std::memcpy(out, text, length);
    out += length;
  }
  const TAV_EML_RESULT result = link.send_all(line.data, static_cast<long>(out - line.data));
  return result == TAV_EML_OK ? read_reply(link, reply)
                              : called_failure("WriteUntil", result, __LINE__);
}

// `reply` holds the greeting with the stamp.
TAV_EML_RESULT log_in_with_apop(pop3_connection& link, utl_buffer& reply) {
  secret_array<kDigestSize> digest;
  TAV_EML_RESULT result =
      make_apop_digest(UtlString(reply.data()), link.settings->m_strPassword, digest.data);
  if (result != TAV_EML_OK) {
    link.close();
    return pop3_called_failure(kName, "CreateAPOPHash", result);
  }
  result = exchange(link, "APOP", text_of(link.settings->m_strUserID), digest.data, reply);
  if (result != TAV_EML_OK || is_positive(reply)) return result;
  return refuse(link, " APOP error.", TAV_EML_ERR_AUTH);
}

TAV_EML_RESULT log_in_with_password(pop3_connection& link, utl_buffer& reply) {
  TAV_EML_RESULT result = exchange(link, "USER", text_of(link.settings->m_strUserID), "", reply);
  if (result != TAV_EML_OK) return result;
  if (!is_positive(reply)) return refuse(link, "response error.", TAV_EML_ERR_REPLY);
  result = exchange(link, "PASS", text_of(link.settings->m_strPassword), "", reply);
  if (result != TAV_EML_OK || is_positive(reply)) return result;
  return refuse(link, "PASS error.", TAV_EML_ERR_AUTH);
}

TAV_EML_RESULT log_in(pop3_connection& link, token_state& tokens) {
  utl_buffer reply;
  if (!make_reply_buffer(kName, reply)) return TAV_EML_ERR_NO_MEMORY;
  TAV_EML_RESULT result = read_reply(link, reply);
  if (result != TAV_EML_OK) return result;
  if (!is_positive(reply)) return refuse(link, " response error.", TAV_EML_ERR_REPLY);
  if (link.settings->m_strUserID.IsEmpty()) {
    link.close();
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s(): get_user_id() user id error\n", kName);
    return TAV_EML_ERR_AUTH;
  }
  if (link.settings->m_ucTLSMode == kUpgradedTls) {
    result = negotiate_stls(link);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_pop3_command::Negotiatestart_tls: [Return %08lx]\n",
                        log_long_code(result));
      return result;
    }
  }
  if (link.is_under_tls()) {
    bool is_done = false;
    result = log_in_with_token(link, tokens, is_done);
    if (result != TAV_EML_OK || is_done) return result;
  }
  return link.settings->m_nAPOP != 0 ? log_in_with_apop(link, reply)
                                     : log_in_with_password(link, reply);
}

TAV_EML_RESULT connect_and_log_in(const tav_eml_pop3_settings& settings, pop3_connection link,
                                  token_state& tokens) {
  const TAV_EML_RESULT result =
      link.open({text_of(settings.m_strServer), settings.m_nPort, settings.m_nAddressSelector,
                 settings.m_ucTLSMode, settings.m_ucTLSOption});
  return result == TAV_EML_OK ? log_in(link, tokens) : result;
}

}  // namespace

TAV_EML_RESULT make_apop_digest(const UtlString& greeting, const UtlString& password,
                                char* digest) {
  constexpr char kDigest[] = "CreateAPOPHash";
  return guarded(kDigest, [&]() -> TAV_EML_RESULT {
    const char* begin = std::strchr(text_of(greeting), '<');
    const char* end = begin != nullptr ? std::strchr(begin, '>') : nullptr;
    if (end == nullptr) return pop3_failure(kDigest, "no challenge word.", TAV_EML_ERR_REPLY);
    const size_t stamp = static_cast<size_t>(end - begin) + 1;
    const size_t length = stamp + password.GetLength();
    secret_buffer text;
    if (!text.allocate_uncleared(static_cast<int64_t>(length))) return TAV_EML_ERR_NO_MEMORY;
    std::memcpy(text.data(), begin, stamp);
    std::memcpy(text.data() + stamp, text_of(password), password.GetLength());
    text.data()[length] = '\0';
    text.set_length(static_cast<long>(length));
    tav_eml_mlutl_mail_hash().GetMD5Hash(text.data(), digest);
    return TAV_EML_OK;
  });
}

TAV_EML_RESULT log_in_to_pop3(const tav_eml_pop3_settings* settings, int& sock,
                              TAV_EML_TLS_INFO& tls) {
  return guarded(kName, [&]() -> TAV_EML_RESULT {
    sock = 0;
    if (settings == nullptr) return pop3_failure(kName, " no settings.", TAV_EML_ERR_UNKNOWN);
    TAV_EML_RESULT result = check_settings(*settings);
    if (result != TAV_EML_OK) return result;
    token_state tokens = token_state::none_refused;
    do {
      new_connection opened(*settings);
      result = connect_and_log_in(*settings, opened.view(), tokens);
      if (result == TAV_EML_OK) opened.hand_over(sock, tls);
      // A refused token gets one successor, on a connection of its own.
    } while (result == TAV_EML_ERR_AUTH && tokens == token_state::one_refused);
    return result;
  });
}

}  // namespace quorvelmida
