// The TLS wrapper (tlsw.h) on mbedTLS 2.28.
//
// The trust store is the file that SSL_CERT_FILE names, else that of the system.

#include <arpa/inet.h>
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/oid.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "certificate_text.h"
#include "handle_table.h"
#include "immortal.h"
#include "port_time.h"
#include "record_heads.h"
#include "tav_netsock_tls.h"
#include "tls_port.h"
#include "tlsw.h"
#include "wake.h"
#include "wiretap.h"

namespace {

// What all sessions of a context share: random numbers and the trust store.
struct context {
  context() {
    mbedtls_entropy_init(&entropy);
    mbedtls_ctr_drbg_init(&random);
    mbedtls_x509_crt_init(&store);
  }
  ~context() {
    mbedtls_x509_crt_free(&store);
    mbedtls_ctr_drbg_free(&random);
    mbedtls_entropy_free(&entropy);
  }
  context(const context&) = delete;
  context& operator=(const context&) = delete;

  bool load_store() {
    const std::lock_guard<std::mutex> lock(guard);
    if (store.raw.p != nullptr) return true;
    const char* file = std::getenv("SSL_CERT_FILE");
    if (file == nullptr) file = "/etc/ssl/certs/ca-certificates.crt";
    // Certificates that this library cannot read are left out.
    return mbedtls_x509_crt_parse_file(&store, file) >= 0 && store.raw.p != nullptr;
  }

  mbedtls_entropy_context entropy;
  mbedtls_ctr_drbg_context random;
  mbedtls_x509_crt store;
  std::mutex guard;
};

struct session {
  explicit session(std::shared_ptr<context> c) : owner(std::move(c)) {
    mbedtls_ssl_config_init(&config);
    mbedtls_ssl_init(&ssl);
  }
  ~session() {
    mbedtls_ssl_free(&ssl);
    mbedtls_ssl_config_free(&config);
  }
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  const std::shared_ptr<context> owner;
  mbedtls_ssl_config config;
  mbedtls_ssl_context ssl;
  int fd = 0;
  std::string server;               // the name that the certificate must have
  const deadline* until = nullptr;  // of the call that is going on
  bool is_ended = false;            // by the peer, with close_notify
  bool is_broken = false;           // no further call
  int error = 0;                    // of mbedTLS
  record_heads heads;
  // Of the certificate, when it was checked.
  uint32_t faults = 0;
  const char* refused = TAV_TLS_REFUSED_OTHER;
  std::string sentence;
};
using session_ptr = std::shared_ptr<session>;

handle_table<context, session>& table() {
  static immortal<handle_table<context, session>> instance;
  return *instance;
}

// Sending and receiving. mbedTLS goes on by itself as long as bytes move, whatever they are. So
// both functions check the deadline of the call each time.

bool is_over(const session& s) { return s.until != nullptr && s.until->is_over(); }

bool is_retry() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

int send_bytes(void* of, const unsigned char* data, size_t length) {
  const session& s = *static_cast<session*>(of);
  if (is_over(s)) return MBEDTLS_ERR_SSL_WANT_WRITE;
  const ssize_t count = send(s.fd, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count >= 0) return static_cast<int>(count);
  return is_retry() ? MBEDTLS_ERR_SSL_WANT_WRITE : MBEDTLS_ERR_SSL_CONN_EOF;
}

// The count of bytes received, or an error for mbedTLS.
int fetch(session& s, unsigned char* data, size_t length) {
  if (is_over(s)) return MBEDTLS_ERR_SSL_WANT_READ;
  const ssize_t count = recv(s.fd, data, length, MSG_DONTWAIT);
  if (count > 0) return static_cast<int>(count);
  return count < 0 && is_retry() ? MBEDTLS_ERR_SSL_WANT_READ : MBEDTLS_ERR_SSL_CONN_EOF;
}

// mbedTLS declines a renegotiation and goes on, and fails on a request during the handshake;
// record_heads does what the contract wants.
int receive_bytes(void* of, unsigned char* data, size_t length) {
  session& s = *static_cast<session*>(of);
  const auto from_socket = [&](unsigned char* room, size_t size) { return fetch(s, room, size); };
  const int count = s.heads.receive(from_socket, data, length);
  switch (s.heads.found()) {
    case record_heads::fault::not_tls:
      return MBEDTLS_ERR_SSL_INVALID_RECORD;
    case record_heads::fault::renegotiation:
      return MBEDTLS_ERR_SSL_UNEXPECTED_MESSAGE;
    default:
      return count;
  }
}

enum class io_result { done, closed, timeout, failed };

// Runs one operation of mbedTLS to its end within the deadline.
template <typename Operation>
io_result run(session& s, const deadline& until, Operation&& operation) {
  if (s.is_broken) return io_result::failed;
  for (;;) {
    if (is_woken()) return io_result::timeout;
    s.until = &until;
    const int result = operation();
    s.until = nullptr;
    int ready = -1;
    if (result > 0) return io_result::done;
    if (result == MBEDTLS_ERR_SSL_WANT_READ) {
      ready = until.wait(s.fd, POLLIN);
    } else if (result == MBEDTLS_ERR_SSL_WANT_WRITE) {
      ready = until.wait_for_room(s.fd);
    } else if (result == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY) {
      return io_result::closed;
    }
    if (ready == 0) return io_result::timeout;
    if (ready > 0) continue;
    s.is_broken = true;
    s.error = result != 0 ? result : MBEDTLS_ERR_SSL_CONN_EOF;
    return io_result::failed;
  }
}

std::string error_text(int error) {
  char text[128] = "";
  mbedtls_strerror(error, text, sizeof text);
  return text;
}

// The certificate.

std::string_view bytes_of(const mbedtls_asn1_buf& buffer) {
  return {reinterpret_cast<const char*>(buffer.p), buffer.len};
}

// The entries of the subject alternative name of one kind (RFC 5280, 4.2.1.6).
template <typename Take>
void each_name(const mbedtls_x509_crt& certificate, int kind, Take&& take) {
  if ((certificate.ext_types & MBEDTLS_X509_EXT_SUBJECT_ALT_NAME) == 0) return;
  for (const auto* entry = &certificate.subject_alt_names; entry != nullptr; entry = entry->next) {
    if (entry->buf.tag == (MBEDTLS_ASN1_CONTEXT_SPECIFIC | kind)) take(bytes_of(entry->buf));
  }
}
constexpr int kHostName = 2;
constexpr int kAddress = 7;

// mbedTLS compares host names only.
bool is_for_address(const mbedtls_x509_crt& certificate, const std::string& address) {
  unsigned char bytes[16];
  const bool is_short = inet_pton(AF_INET, address.c_str(), bytes) == 1;
  if (!is_short && inet_pton(AF_INET6, address.c_str(), bytes) != 1) return false;
  const std::string_view wanted(reinterpret_cast<char*>(bytes), is_short ? 4 : 16);
  bool is_found = false;
  each_name(certificate, kAddress, [&](std::string_view name) { is_found |= name == wanted; });
  return is_found;
}

std::tm day_of(const mbedtls_x509_time& time) {
  std::tm day{};
  day.tm_year = time.year - 1900;
  day.tm_mon = time.mon - 1;
  day.tm_mday = time.day;
  return day;
}

certificate_text text_of(const mbedtls_x509_crt& certificate) {
  certificate_text text;
  each_name(certificate, kHostName, [&](std::string_view name) { text.add_host(name); });
  each_name(certificate, kAddress, [&](std::string_view name) { text.add_address(name); });
  const std::tm first = day_of(certificate.valid_from);
  const std::tm last = day_of(certificate.valid_to);
  text.set_days(&first, &last);
  for (const char* const field : {MBEDTLS_OID_AT_ORGANIZATION, MBEDTLS_OID_AT_CN}) {
    for (const auto* part = &certificate.issuer; part != nullptr; part = part->next) {
      if (bytes_of(part->oid) == field) text.set_issuer(bytes_of(part->val));
    }
  }
  return text;
}

const char* name_of(uint32_t faults, bool is_self_signed) {
  if ((faults & MBEDTLS_X509_BADCERT_NOT_TRUSTED) != 0) {
    return is_self_signed ? TAV_TLS_REFUSED_SELF_SIGNED : TAV_TLS_REFUSED_ISSUER;
  }
  if ((faults & MBEDTLS_X509_BADCERT_EXPIRED) != 0) return TAV_TLS_REFUSED_EXPIRED;
  if ((faults & MBEDTLS_X509_BADCERT_FUTURE) != 0) return TAV_TLS_REFUSED_NOT_YET;
  if ((faults & MBEDTLS_X509_BADCERT_CN_MISMATCH) != 0) return TAV_TLS_REFUSED_NAME;
  return TAV_TLS_REFUSED_OTHER;
}

// Called for each certificate of the chain, for the server's own last.
int judge(void* of, mbedtls_x509_crt* certificate, int depth, uint32_t* faults) {
  session& s = *static_cast<session*>(of);
  try {
    if (depth == 0 && is_address_literal(s.server) && !is_for_address(*certificate, s.server)) {
      *faults |= MBEDTLS_X509_BADCERT_CN_MISMATCH;
    }
    s.faults |= *faults;
    if (depth != 0) return 0;
    const certificate_text text = text_of(*certificate);
    text.tell();
    s.refused =
        name_of(s.faults, bytes_of(certificate->issuer_raw) == bytes_of(certificate->subject_raw));
    char other[256] = "";
    mbedtls_x509_crt_verify_info(other, sizeof other, "", s.faults);
    s.sentence = text.refusal(s.refused, s.server, std::string(other, std::strcspn(other, "\n")));
  } catch (const std::bad_alloc&) {
    return MBEDTLS_ERR_X509_ALLOC_FAILED;
  }
  return 0;
}

// The handshake.

std::string failure_reason(const session& s) {
  switch (s.error) {
    case MBEDTLS_ERR_SSL_CONN_EOF:
      return TAV_TLS_FAILED_CUT;
    case MBEDTLS_ERR_SSL_INVALID_RECORD:
      return TAV_TLS_FAILED_NOT_TLS;
    case MBEDTLS_ERR_SSL_BAD_HS_PROTOCOL_VERSION:
      return TAV_TLS_FAILED_VERSION;
    case MBEDTLS_ERR_SSL_FATAL_ALERT_MESSAGE: {
      const int alert = s.ssl.in_msg[1];
      if (alert == MBEDTLS_SSL_ALERT_MSG_PROTOCOL_VERSION) return TAV_TLS_FAILED_VERSION;
      if (alert >= MBEDTLS_SSL_ALERT_MSG_HANDSHAKE_FAILURE &&
          alert <= MBEDTLS_SSL_ALERT_MSG_CERT_UNKNOWN) {
        return TAV_TLS_FAILED_DECLINED;
      }
      return "alert " + std::to_string(alert);
    }
    default:
      return error_text(s.error);
  }
}

// TLS 1.2. Here and in tlsw.h the versions have the same numbers.
constexpr int kNewest = MBEDTLS_SSL_MINOR_VERSION_3;

// A session that is ready for its handshake.
int32_t prepare(session& s, const tls_options& options) {
  if (options.check && s.server.empty()) {
    return certificate_refused(TAV_TLS_REFUSED_NO_NAME, "no host name to check it for");
  }
  if (options.check && !s.owner->load_store()) {
    return handshake_failed(TLSW_ERR_NO_RESOURCE, TAV_TLS_FAILED_NO_STORE);
  }
  if (mbedtls_ssl_config_defaults(&s.config, MBEDTLS_SSL_IS_CLIENT, MBEDTLS_SSL_TRANSPORT_STREAM,
                                  MBEDTLS_SSL_PRESET_DEFAULT) != 0) {
    return handshake_failed(TLSW_ERR_NO_MEMORY, "no memory");
  }
  mbedtls_ssl_conf_min_version(&s.config, MBEDTLS_SSL_MAJOR_VERSION_3, options.oldest);
  mbedtls_ssl_conf_authmode(&s.config,
                            options.check ? MBEDTLS_SSL_VERIFY_REQUIRED : MBEDTLS_SSL_VERIFY_NONE);
  mbedtls_ssl_conf_ca_chain(&s.config, &s.owner->store, nullptr);
  mbedtls_ssl_conf_verify(&s.config, judge, &s);
  mbedtls_ssl_conf_rng(&s.config, mbedtls_ctr_drbg_random, &s.owner->random);
  // mbedTLS sends this name and compares it with those of the certificate.
  const bool has_host = !s.server.empty() && !is_address_literal(s.server);
  if (mbedtls_ssl_setup(&s.ssl, &s.config) != 0 ||
      (has_host && mbedtls_ssl_set_hostname(&s.ssl, s.server.c_str()) != 0)) {
    return handshake_failed(TLSW_ERR_NO_MEMORY, "no memory");
  }
  mbedtls_ssl_set_bio(&s.ssl, &s, send_bytes, receive_bytes, nullptr);
  return TLSW_OK;
}

int32_t handshake(session& s, bool check, uint32_t timeout_ms) {
  const deadline until(static_cast<int32_t>(std::min<uint32_t>(timeout_ms, INT32_MAX)));
  const io_result result = run(s, until, [&] {
    const int done = mbedtls_ssl_handshake(&s.ssl);
    return done == 0 ? 1 : done;
  });
  if (result == io_result::timeout)
    return handshake_failed(TLSW_ERR_TIMEOUT, TAV_TLS_FAILED_TIMEOUT);
  if (result != io_result::done) {
    if (s.error == MBEDTLS_ERR_X509_CERT_VERIFY_FAILED)
      return certificate_refused(s.refused, s.sentence);
    return handshake_failed(TLSW_ERR_CONNECT, failure_reason(s));
  }
  s.heads.end_handshake();
  const mbedtls_x509_crt* const certificate = mbedtls_ssl_get_peer_cert(&s.ssl);
  if (!check && has_wiretap() && certificate != nullptr) text_of(*certificate).tell();
  return handshake_started(mbedtls_ssl_get_version(&s.ssl), mbedtls_ssl_get_ciphersuite(&s.ssl));
}

int32_t connect_session(uint32_t handle, const TLSW_CONNECT_PARAM& param, uint32_t* session_out) {
  const std::shared_ptr<context> owner = table().context(handle);
  const int32_t has_bytes = tav_netsock_has_bytes(param.sock);
  if (!owner || has_bytes < 0) return TLSW_ERR_PARAM;
  if (has_bytes > 0) return handshake_failed(TLSW_ERR_CONNECT, TAV_TLS_FAILED_CLEAR);
  tls_options options;
  if (!read_options(param.option, options) || options.oldest > kNewest) {
    return handshake_failed(TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS);
  }
  const auto made = std::make_shared<session>(owner);
  made->fd = param.sock;
  made->server = bare_name(tav_netsock_get_name(param.sock));
  int32_t result = prepare(*made, options);
  if (result == TLSW_OK) result = handshake(*made, options.check, param.timeout_ms);
  if (result != TLSW_OK) return result;
  *session_out = table().add_session(handle, made);
  return *session_out != 0 ? TLSW_OK : TLSW_ERR_PARAM;
}

// The result of a read or write that moved nothing.
int32_t without_bytes(session& s, io_result result, const char* operation, int32_t failure) {
  if (result == io_result::timeout) return TLSW_ERR_TIMEOUT;
  s.is_broken = true;
  TLS_LOG(0, "tlsw: %s failed: %s\n", operation, error_text(s.error).c_str());
  return failure;
}

}  // namespace

int32_t tlsw_init(uint32_t* handle) noexcept try {
  if (handle == nullptr) return TLSW_ERR_PARAM;
  const auto made = std::make_shared<context>();
  if (mbedtls_ctr_drbg_seed(&made->random, mbedtls_entropy_func, &made->entropy, nullptr, 0) != 0) {
    return TLSW_ERR_NO_RESOURCE;
  }
  *handle = table().add_context(made);
  return TLSW_OK;
} catch (const std::bad_alloc&) {
  return TLSW_ERR_NO_MEMORY;
}

int32_t tlsw_connect_timeo(uint32_t context, const TLSW_CONNECT_PARAM* param,
                           uint32_t* session_out) noexcept try {
  if (param == nullptr || session_out == nullptr || param->sock <= 0) return TLSW_ERR_PARAM;
  return connect_session(context, *param, session_out);
} catch (const std::bad_alloc&) {
  return TLSW_ERR_NO_MEMORY;
}

int32_t tlsw_read_timeo(uint32_t handle, void* data, int32_t len, int32_t timeout_ms,
                        int32_t* count) noexcept {
  if (data == nullptr || len < 0 || count == nullptr) return TLSW_ERR_PARAM;
  *count = 0;
  const session_ptr s = table().session(handle);
  if (!s) return TLSW_ERR_PARAM;
  if (len == 0 || (s->is_ended && !s->is_broken)) return TLSW_OK;
  auto* const bytes = static_cast<unsigned char*>(data);
  const io_result result = run(*s, deadline(timeout_ms), [&] {
    return *count = mbedtls_ssl_read(&s->ssl, bytes, static_cast<size_t>(len));
  });
  if (result == io_result::done) {
    wiretap(TAV_WIRETAP_RECEIVED, {static_cast<char*>(data), static_cast<size_t>(*count)});
    return TLSW_OK;
  }
  *count = 0;
  s->is_ended = result == io_result::closed;
  return s->is_ended ? TLSW_OK : without_bytes(*s, result, "read", TLSW_ERR_READ);
}

int32_t tlsw_write_timeo(uint32_t handle, const void* data, int32_t len, int32_t timeout_ms,
                         int32_t* count) noexcept {
  if (data == nullptr || len < 0 || count == nullptr) return TLSW_ERR_PARAM;
  *count = 0;
  const session_ptr s = table().session(handle);
  if (!s) return TLSW_ERR_PARAM;
  if (len == 0) return TLSW_OK;
  const auto* const bytes = static_cast<const unsigned char*>(data);
  const io_result result = run(*s, deadline(timeout_ms), [&] {
    return *count = mbedtls_ssl_write(&s->ssl, bytes, static_cast<size_t>(len));
  });
  if (result == io_result::done) {
    wiretap(TAV_WIRETAP_SENT, {static_cast<const char*>(data), static_cast<size_t>(*count)});
    return TLSW_OK;
  }
  *count = 0;
  s->is_broken = true;  // half a record may have been sent: nothing can follow it
  return without_bytes(*s, result, "write", TLSW_ERR_WRITE);
}

int32_t tlsw_shutdown(uint32_t handle) noexcept {
  const session_ptr s = table().session(handle);
  if (!s) return TLSW_ERR_PARAM;
  if (s->is_broken) return TLSW_OK;  // nothing more may be sent
  // Sends close_notify if that is possible at once. The peer's is not waited for.
  const int result = mbedtls_ssl_close_notify(&s->ssl);
  s->is_broken = true;
  return result == 0 || result == MBEDTLS_ERR_SSL_WANT_WRITE ? TLSW_OK : TLSW_ERR_SHUTDOWN;
}

int32_t tlsw_term(uint32_t context) noexcept {
  return table().remove_context(context) ? TLSW_OK : TLSW_ERR_PARAM;
}
