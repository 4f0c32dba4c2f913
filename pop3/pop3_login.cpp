// Opening a session: connect, TLS, greeting, login.

#include <cstring>
#include <string>

#include "common/guard.h"
#include "common/log.h"
#include "common/secret.h"
#include "common/text.h"
#include "pop3_dialogue.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/tav_eml_pop3_command.h"
#include "transport/connection.h"

namespace quorvelmida {

namespace {

constexpr uint8_t kPlain = 0;
constexpr uint8_t kImplicitTls = 1;
constexpr uint8_t kStls = 2;

constexpr size_t kDigestSize = 33;

// Greatest length of "USER", "PASS" and "APOP" lines. RFC 2449 lets a server refuse more than 255
// bytes; what it takes is for the server to say.
constexpr size_t kMaxCommand = 1024;

// A connection that is closed again unless it is handed over.
class new_connection {
 public:
  explicit new_connection(const tav_eml_pop3_settings& settings) : m_settings(settings) {}
  new_connection(const new_connection&) = delete;
  new_connection& operator=(const new_connection&) = delete;
  ~new_connection() { close_connection(sock, tls); }

  const tav_eml_pop3_settings& settings() const { return m_settings; }
  long timeout() const { return timeout_ms(m_settings); }

  void hand_over(int& to_sock, TAV_EML_TLS_INFO& to_tls) {
    to_sock = sock;
    if (m_settings.m_ucTLSMode != kPlain) to_tls = tls;
    sock = 0;
    tls = TAV_EML_TLS_INFO();
  }

  int sock = 0;
  TAV_EML_TLS_INFO tls = {};

 private:
  const tav_eml_pop3_settings& m_settings;
};

TAV_EML_RESULT login_failure(TAV_EML_RESULT result, const char* text) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::connect_start():[Return %08lx]%s\n",
                    log_long_code(result), text);
  return result;
}

bool fits_command(const char* text, size_t verb_length) {
  return has_no_control(text) && verb_length + std::strlen(text) < kMaxCommand;
}

// What can be refused before anything is sent.
TAV_EML_RESULT check_settings(const tav_eml_pop3_settings& settings) {
  if (settings.m_ucTLSMode > kStls) {
    // An unknown mode must not come to mean plain text.
    return login_failure(TAV_EML_ERR_PARAM, " unknown TLS mode.");
  }
  constexpr size_t kApopLength = sizeof "APOP  \r\n" + kDigestSize;
  constexpr size_t kPassLength = sizeof "PASS \r\n";
  if (!fits_command(text_of(settings.m_strUserID), kApopLength) ||
      !fits_command(text_of(settings.m_strPassword), kPassLength)) {
    return login_failure(TAV_EML_ERR_PARAM, " invalid user id or password.");
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT open_connection(new_connection& connection) {
  const tav_eml_pop3_settings& settings = connection.settings();
  tav_eml_mlutl_mail_net net;
  TAV_EML_RESULT result = net.connect_mail(&connection.sock, text_of(settings.m_strServer),
                                           static_cast<uint16_t>(settings.m_nPort),
                                           connection.timeout(), settings.m_nAddressSelector);
  if (result != TAV_EML_OK) return login_failure(transport_result(result), "connect error");
  if (settings.m_ucTLSMode == kPlain) return TAV_EML_OK;

  TAV_EML_TLS_INFO& tls = connection.tls;
  tls.tls_opt0 = settings.m_ucTLSOption[0];
  tls.tls_opt1 = settings.m_ucTLSOption[1];
  tls.tls_opt2 = settings.m_ucTLSOption[2];
  tls.tls_opt3 = settings.m_ucTLSOption[3];
  tls.tls_opt4 = settings.m_ucTLSOption[4];
  if (settings.m_ucTLSMode != kImplicitTls) return TAV_EML_OK;
  result = net.start_tls(connection.sock, static_cast<unsigned int>(connection.timeout()), tls);
  if (result == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::start_tls NG[%d]\n", static_cast<int>(result));
  return tls_result(result);
}

TAV_EML_RESULT read_reply(new_connection& connection, utl_buffer& reply) {
  long size = kPop3BufferSize;
  const TAV_EML_RESULT result = tav_eml_pop3_command::ReadResponse(
      connection.sock, reply.data(), size, connection.timeout(), connection.tls);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_pop3_command::connect_start(): ReadResponse() returns [0x%08lx]: "
        "Line%d\n",
        log_long_code(result), __LINE__);
  }
  return result;
}

// Sends "verb first second" and reads the reply. The line is wiped: it may hold a password.
TAV_EML_RESULT exchange(new_connection& connection, const char* verb, const char* first,
                        const char* second, utl_buffer& reply) {
  secret_array<kMaxCommand + 1> line;
  char* out = line.data;
  for (const char* text : {verb, " ", first, *second != '\0' ? " " : "", second, "\r\n"}) {
    const size_t length = std::strlen(text);
    std::memcpy(out, text, length);
    out += length;
  }
  const TAV_EML_RESULT result = tav_eml_pop3_command::WriteUntil(
      connection.sock, line.data, static_cast<long>(out - line.data), 0, connection.tls);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_pop3_command::connect_start(): WriteUntil() returns [0x%08lx]: Line%d\n",
        log_long_code(result), __LINE__);
    return result;
  }
  return read_reply(connection, reply);
}

// `reply` holds the greeting with the stamp.
TAV_EML_RESULT log_in_with_apop(new_connection& connection, utl_buffer& reply) {
  secret_array<kDigestSize> digest;
  TAV_EML_RESULT result = tav_eml_pop3_command::CreateAPOPHash(
      UtlString(reply.data()), connection.settings().m_strPassword, digest.data);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_pop3_command::connect_start(): CreateAPOPHash() returns [0x%08lx]\n",
        log_long_code(result));
    return result;
  }
  result =
      exchange(connection, "APOP", text_of(connection.settings().m_strUserID), digest.data, reply);
  if (result != TAV_EML_OK) return result;
  return is_positive(reply) ? TAV_EML_OK : login_failure(TAV_EML_ERR_AUTH, " APOP error.");
}

TAV_EML_RESULT log_in_with_password(new_connection& connection, utl_buffer& reply) {
  const tav_eml_pop3_settings& settings = connection.settings();
  TAV_EML_RESULT result = exchange(connection, "USER", text_of(settings.m_strUserID), "", reply);
  if (result != TAV_EML_OK) return result;
  if (!is_positive(reply)) return login_failure(TAV_EML_ERR_REPLY, "response error.");
  result = exchange(connection, "PASS", text_of(settings.m_strPassword), "", reply);
  if (result != TAV_EML_OK) return result;
  return is_positive(reply) ? TAV_EML_OK : login_failure(TAV_EML_ERR_AUTH, "PASS error.");
}

TAV_EML_RESULT log_in(new_connection& connection) {
  const tav_eml_pop3_settings& settings = connection.settings();
  utl_buffer reply;
  if (!make_reply_buffer("connect_start", reply)) return TAV_EML_ERR_NO_MEMORY;
  TAV_EML_RESULT result = read_reply(connection, reply);
  if (result != TAV_EML_OK) return result;
  if (!is_positive(reply)) return login_failure(TAV_EML_ERR_REPLY, " response error.");
  if (settings.m_strUserID.IsEmpty()) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_pop3_command::connect_start(): get_user_id() user id error\n");
    return TAV_EML_ERR_AUTH;
  }
  if (settings.m_ucTLSMode == kStls) {
    result = tav_eml_pop3_command::NegotiateStartTLS(&settings, connection.sock, connection.tls,
                                                     connection.timeout());
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_pop3_command::Negotiatestart_tls: [Return %08lx]\n",
                        log_long_code(result));
      return result;
    }
  }
  return settings.m_nAPOP != 0 ? log_in_with_apop(connection, reply)
                               : log_in_with_password(connection, reply);
}

}  // namespace

TAV_EML_RESULT tav_eml_pop3_command::CreateAPOPHash(const UtlString& greeting,
                                                    const UtlString& password, char* digest) {
  return guarded("CreateAPOPHash", [&]() -> TAV_EML_RESULT {
    const char* begin = std::strchr(text_of(greeting), '<');
    const char* end = begin != nullptr ? std::strchr(begin, '>') : nullptr;
    if (end == nullptr) {
      TAV_EML_LOG_ERROR(
          "<Error> tav_eml_pop3_command::CreateAPOPHash():[Return %08lx]no challenge word.\n",
          log_long_code(TAV_EML_ERR_REPLY));
      return TAV_EML_ERR_REPLY;
    }
    const size_t stamp = static_cast<size_t>(end - begin) + 1;
    const size_t length = stamp + password.GetLength();
    secret_buffer text;
    if (!text.allocate(static_cast<long>(length))) return TAV_EML_ERR_NO_MEMORY;
    std::memcpy(text.data(), begin, stamp);
    std::memcpy(text.data() + stamp, text_of(password), password.GetLength());
    text.length() = static_cast<long>(length);
    tav_eml_mlutl_mail_hash().GetMD5Hash(text.data(), digest);
    return TAV_EML_OK;
  });
}

TAV_EML_RESULT tav_eml_pop3_command::connect_start(const tav_eml_pop3_settings* settings, int& sock,
                                                   TAV_EML_TLS_INFO& tls) {
  return guarded("connect_start", [&]() -> TAV_EML_RESULT {
    sock = 0;
    if (settings == nullptr) return login_failure(TAV_EML_ERR_UNKNOWN, " no settings.");
    TAV_EML_RESULT result = check_settings(*settings);
    if (result != TAV_EML_OK) return result;
    new_connection connection(*settings);
    result = open_connection(connection);
    if (result == TAV_EML_OK) result = log_in(connection);
    if (result == TAV_EML_OK) connection.hand_over(sock, tls);
    return result;
  });
}

}  // namespace quorvelmida
