// The TLS wrapper on OpenSSL.

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "certificate_text.h"
#include "handle_table.h"
#include "immortal.h"
#include "port_time.h"
#include "tav_netsock_tls.h"
#include "tls_certificate.h"
#include "tls_port.h"
#include "tlsw.h"
#include "wake.h"
#include "wiretap.h"

namespace {

// Four records of the greatest length: what one call of the system moves.
constexpr size_t kReadBuffer = 64 * 1024;
constexpr int kRecord = SSL3_RT_MAX_PLAIN_LENGTH;
constexpr int kGatheredRecords = 4;

struct ssl_deleter {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};

struct session {
  std::unique_ptr<SSL, ssl_deleter> ssl;
  int fd = 0;
  bool is_broken = false;           // OpenSSL allows no further call
  const deadline* until = nullptr;  // of the call that is going on
  int renegotiations = 0;           // that the peer has asked for
  bool is_established = false;
  certificate_refusal refusal;
  bool is_gathering = false;
  std::string gathered;  // records to be sent together
};
using session_ptr = std::shared_ptr<session>;

handle_table<SSL_CTX, session>& table() {
  static immortal<handle_table<SSL_CTX, session>> instance;
  return *instance;
}

// The system's own socket BIO writes with write(), which raises SIGPIPE, and both its directions
// wait, with limits of their own, where a deadline is to be kept.

bool is_retry(ssize_t count) {
  return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

// OpenSSL goes on by itself as long as bytes move, whatever they are: the time of a call is looked
// at wherever they do.
bool is_over(const session& s) { return s.until != nullptr && s.until->is_over(); }

// A request that meets a handshake is to be ignored (RFC 5246, 7.4.1.1), but not for ever.
bool is_renegotiating(const session& s) { return s.renegotiations > (s.is_established ? 0 : 1); }

void note_message(int is_sent, int, int type, const void* bytes, size_t length, SSL*, void* s) {
  if (is_sent != 0 || type != SSL3_RT_HANDSHAKE || length == 0) return;
  if (*static_cast<const unsigned char*>(bytes) != SSL3_MT_HELLO_REQUEST) return;
  ++static_cast<session*>(s)->renegotiations;
}

int bio_write(BIO* bio, const char* data, int length) {
  BIO_clear_retry_flags(bio);
  auto* const s = static_cast<session*>(BIO_get_app_data(bio));
  if (s->is_gathering) {
    try {
      s->gathered.append(data, static_cast<size_t>(length));
      return length;
    } catch (const std::bad_alloc&) {
      return -1;
    }
  }
  if (is_over(*s)) {
    BIO_set_retry_write(bio);
    return -1;
  }
  int fd = 0;
  BIO_get_fd(bio, &fd);
  const ssize_t count = send(fd, data, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (is_retry(count)) BIO_set_retry_write(bio);
  return static_cast<int>(count);
}

int bio_read(BIO* bio, char* data, int length) {
  BIO_clear_retry_flags(bio);
  const auto* const s = static_cast<const session*>(BIO_get_app_data(bio));
  if (is_renegotiating(*s)) return -1;
  if (is_over(*s)) {
    BIO_set_retry_read(bio);
    return -1;
  }
  int fd = 0;
  BIO_get_fd(bio, &fd);
  const ssize_t count = recv(fd, data, static_cast<size_t>(length), MSG_DONTWAIT);
  if (is_retry(count)) BIO_set_retry_read(bio);
  if (count == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);  // tells a cut connection from other errors
  return static_cast<int>(count);
}

BIO_METHOD* socket_bio_method() {
  static BIO_METHOD* const method = [] {
    const BIO_METHOD* base = BIO_s_socket();
    BIO_METHOD* made = BIO_meth_new(
        BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "socket without SIGPIPE");
    if (made == nullptr) return made;
    BIO_meth_set_write(made, bio_write);
    BIO_meth_set_read(made, bio_read);
    BIO_meth_set_ctrl(made, BIO_meth_get_ctrl(base));
    BIO_meth_set_create(made, BIO_meth_get_create(base));
    BIO_meth_set_destroy(made, BIO_meth_get_destroy(base));
    return made;
  }();
  return method;
}

bool set_versions(SSL* ssl, const tls_options& options) {
  static constexpr int kVersions[] = {0, TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION,
                                      TLS1_3_VERSION};
  const int oldest = kVersions[options.oldest];
  if (oldest < TLS1_2_VERSION) {
    // The security level of today excludes these versions.
    SSL_set_cipher_list(ssl, "DEFAULT:@SECLEVEL=0");
  }
  return SSL_set_min_proto_version(ssl, oldest) == 1 &&
         SSL_set_max_proto_version(ssl, kVersions[options.newest]) == 1;
}

enum class io_result { done, closed, timeout, failed };

// Runs one OpenSSL operation to its end within the deadline.
template <typename Operation>
io_result run(session& s, const deadline& until, Operation&& operation) {
  if (s.is_broken) return io_result::failed;
  for (;;) {
    if (is_woken()) return io_result::timeout;
    // Its errors are told from old ones. Looking costs less than clearing, which visits each entry.
    if (ERR_peek_error() != 0) ERR_clear_error();
    s.until = &until;
    const int result = operation();
    s.until = nullptr;
    if (is_renegotiating(s)) {
      s.is_broken = true;
      ERR_raise(ERR_LIB_SSL, SSL_R_NO_RENEGOTIATION);
      return io_result::failed;
    }
    if (result > 0) return io_result::done;
    short events = 0;
    switch (SSL_get_error(s.ssl.get(), result)) {
      case SSL_ERROR_WANT_READ:
        events = POLLIN;
        break;
      case SSL_ERROR_WANT_WRITE:
        events = POLLOUT;
        break;
      case SSL_ERROR_ZERO_RETURN:
        return io_result::closed;
      default:
        s.is_broken = true;
        return io_result::failed;
    }
    const int ready = until.wait(s.fd, events);
    if (ready == 0) return io_result::timeout;
    if (ready < 0) return io_result::failed;
  }
}

// Makes records of `length` bytes, or of as many as are sent together, into `gathered`. There is
// something to wait for when a message of the handshake, which goes on, is half read.
io_result gather_records(session& s, const char* data, int& length, const deadline& until) {
  length = std::min(length, kGatheredRecords * kRecord);
  s.gathered.clear();
  s.is_gathering = true;
  io_result result = io_result::done;
  for (int made = 0; made < length && result == io_result::done;) {
    const int wanted = std::min(length - made, kRecord);
    result = run(s, until, [&] {
      const int count = SSL_write(s.ssl.get(), data + made, wanted);
      if (count > 0) made += count;
      return count;
    });
  }
  s.is_gathering = false;
  return result;
}

io_result send_gathered(session& s, const deadline& until) {
  std::string_view rest = s.gathered;
  while (!rest.empty()) {
    const ssize_t count = send(s.fd, rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) {
      rest.remove_prefix(static_cast<size_t>(count));
      continue;
    }
    if (!is_retry(count)) return io_result::failed;
    const int ready = until.wait_for_room(s.fd);
    if (ready <= 0) return ready == 0 ? io_result::timeout : io_result::failed;
  }
  return io_result::done;
}

void log_openssl_error(const char* operation) {
  char text[256] = "connection lost";
  if (const unsigned long code = ERR_peek_last_error()) ERR_error_string_n(code, text, sizeof text);
  TLS_LOG(0, "tlsw: %s failed: %s\n", operation, text);
}

// Why the handshake failed, after the error that OpenSSL noted last; it notes none for a connection
// that was reset.
const char* failure_reason(unsigned long code) {
  if (code == 0) return TAV_TLS_FAILED_CUT;
  switch (ERR_GET_LIB(code) == ERR_LIB_SSL ? ERR_GET_REASON(code) : 0) {
    case SSL_R_UNEXPECTED_EOF_WHILE_READING:
      return TAV_TLS_FAILED_CUT;
    case SSL_R_UNSUPPORTED_PROTOCOL:          // the server chose one that we do not accept
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:  // the server accepts none of ours
      return TAV_TLS_FAILED_VERSION;
    case SSL_R_WRONG_VERSION_NUMBER:  // of the record: what came is none
    case SSL_R_HTTP_REQUEST:
      return TAV_TLS_FAILED_NOT_TLS;
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
    case SSL_R_SSLV3_ALERT_NO_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
      return TAV_TLS_FAILED_DECLINED;
    default: {
      const char* text = ERR_reason_error_string(code);
      return text != nullptr ? text : "unknown error";
    }
  }
}

int32_t handshake(session& s, uint32_t timeout_ms) {
  const deadline until(static_cast<int32_t>(std::min<uint32_t>(timeout_ms, INT32_MAX)));
  const io_result result = run(s, until, [&] { return SSL_connect(s.ssl.get()); });
  if (result == io_result::timeout)
    return handshake_failed(TLSW_ERR_TIMEOUT, TAV_TLS_FAILED_TIMEOUT);
  if (result != io_result::done) {
    if (s.refusal.is_check && SSL_get_verify_result(s.ssl.get()) != X509_V_OK) {
      return certificate_refused(s.refusal.name, s.refusal.reason);
    }
    return handshake_failed(TLSW_ERR_CONNECT, failure_reason(ERR_peek_last_error()));
  }
  s.is_established = true;
  s.renegotiations = 0;
  return TLSW_OK;
}

constexpr char kNoMemory[] = "no memory";

// A session that is ready for its handshake.
int32_t prepare(SSL_CTX* context, const TLSW_CONNECT_PARAM& param, session& s) {
  s.ssl.reset(SSL_new(context));
  if (!s.ssl) return handshake_failed(TLSW_ERR_NO_MEMORY, kNoMemory);
  tls_options options;
  if (!read_options(param.option, options) || !set_versions(s.ssl.get(), options)) {
    return handshake_failed(TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS);
  }
  s.refusal.is_check = options.check;
  s.refusal.server = bare_name(tav_netsock_get_name(param.sock));
  if (s.refusal.is_check && s.refusal.server.empty()) {
    return certificate_refused(TAV_TLS_REFUSED_NO_NAME, "no host name to check it for");
  }
  if (s.refusal.is_check && !has_trust_store(context)) {
    return handshake_failed(TLSW_ERR_NO_RESOURCE, TAV_TLS_FAILED_NO_STORE);
  }
  BIO* bio = socket_bio_method() != nullptr ? BIO_new(socket_bio_method()) : nullptr;
  if (bio == nullptr) return handshake_failed(TLSW_ERR_NO_MEMORY, kNoMemory);
  BIO_set_fd(bio, param.sock, BIO_NOCLOSE);
  BIO_set_app_data(bio, &s);
  SSL_set_bio(s.ssl.get(), bio, bio);
  SSL_set_msg_callback(s.ssl.get(), note_message);
  SSL_set_msg_callback_arg(s.ssl.get(), &s);
  s.fd = param.sock;
  // A name that is too long to be sent.
  if (!set_server_name(s.ssl.get(), s.refusal))
    return handshake_failed(TLSW_ERR_CONNECT, "no server name");
  return TLSW_OK;
}

int32_t connect_session(uint32_t context, const TLSW_CONNECT_PARAM& param, uint32_t* handle) {
  const std::shared_ptr<SSL_CTX> owner = table().context(context);
  const int32_t has_bytes = tav_netsock_has_bytes(param.sock);
  if (!owner || has_bytes < 0) return TLSW_ERR_PARAM;
  if (has_bytes > 0) return handshake_failed(TLSW_ERR_CONNECT, TAV_TLS_FAILED_CLEAR);
  const auto made = std::make_shared<session>();
  int32_t result = prepare(owner.get(), param, *made);
  if (result == TLSW_OK) result = handshake(*made, param.timeout_ms);
  if (result != TLSW_OK) return result;
  *handle = table().add_session(context, made);
  if (*handle == 0) return handshake_failed(TLSW_ERR_PARAM, "the context has ended");
  // Told last: after it nothing can fail.
  return handshake_started(SSL_get_version(made->ssl.get()), SSL_get_cipher_name(made->ssl.get()));
}

int32_t transfer_result(session& s, io_result result, const char* operation, int32_t failure) {
  switch (result) {
    case io_result::done:
    case io_result::closed:
      return TLSW_OK;
    case io_result::timeout:
      return TLSW_ERR_TIMEOUT;
    default:
      s.is_broken = true;
      log_openssl_error(operation);
      return failure;
  }
}

}  // namespace

int32_t tlsw_init(uint32_t* context) noexcept {
  if (context == nullptr) return TLSW_ERR_PARAM;
  try {
    std::shared_ptr<SSL_CTX> made(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    if (!made) return TLSW_ERR_NO_MEMORY;
    SSL_CTX_set_mode(made.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // From the handshake on everything on the socket is TLS: some records come in one call then.
    SSL_CTX_set_read_ahead(made.get(), 1);
    SSL_CTX_set_default_read_buffer_len(made.get(), kReadBuffer);
    SSL_CTX_set_options(made.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
    *context = table().add_context(std::move(made));
    return TLSW_OK;
  } catch (const std::bad_alloc&) {
    return TLSW_ERR_NO_MEMORY;
  }
}

int32_t tlsw_connect_timeo(uint32_t context, const TLSW_CONNECT_PARAM* param,
                           uint32_t* session_out) noexcept {
  if (param == nullptr || session_out == nullptr || param->sock <= 0) return TLSW_ERR_PARAM;
  try {
    return connect_session(context, *param, session_out);
  } catch (const std::bad_alloc&) {
    return handshake_failed(TLSW_ERR_NO_MEMORY, kNoMemory);
  }
}

int32_t tlsw_read_timeo(uint32_t handle, void* data, int32_t len, int32_t timeout_ms,
                        int32_t* count) noexcept {
  if (data == nullptr || len < 0 || count == nullptr) return TLSW_ERR_PARAM;
  *count = 0;
  const session_ptr s = table().session(handle);
  if (!s) return TLSW_ERR_PARAM;
  if (len == 0) return TLSW_OK;
  int moved = 0;
  const io_result result =
      run(*s, deadline(timeout_ms), [&] { return moved = SSL_read(s->ssl.get(), data, len); });
  if (result == io_result::done) {
    *count = moved;
    wiretap(TAV_WIRETAP_RECEIVED, {static_cast<const char*>(data), static_cast<size_t>(moved)});
  }
  return transfer_result(*s, result, "read", TLSW_ERR_READ);
}

int32_t tlsw_write_timeo(uint32_t handle, const void* data, int32_t len, int32_t timeout_ms,
                         int32_t* count) noexcept {
  if (data == nullptr || len < 0 || count == nullptr) return TLSW_ERR_PARAM;
  *count = 0;
  const session_ptr s = table().session(handle);
  if (!s) return TLSW_ERR_PARAM;
  if (len == 0) return TLSW_OK;
  if (is_woken()) return TLSW_ERR_TIMEOUT;
  int moved = len;
  const deadline until(timeout_ms);
  io_result result = gather_records(*s, static_cast<const char*>(data), moved, until);
  if (result == io_result::done) result = send_gathered(*s, until);
  if (result == io_result::closed) result = io_result::failed;
  if (result == io_result::done) {
    *count = moved;
    wiretap(TAV_WIRETAP_SENT, {static_cast<const char*>(data), static_cast<size_t>(moved)});
  } else {
    s->is_broken = true;  // half a record may be out: nothing can follow it
  }
  return transfer_result(*s, result, "write", TLSW_ERR_WRITE);
}

int32_t tlsw_shutdown(uint32_t handle) noexcept {
  const session_ptr s = table().session(handle);
  if (!s) return TLSW_ERR_PARAM;
  if (s->is_broken) return TLSW_OK;  // there is nobody to say goodbye to
  ERR_clear_error();
  // One way and without waiting: the peer's own goodbye is not awaited.
  const int result = SSL_shutdown(s->ssl.get());
  s->is_broken = true;
  if (result >= 0) return TLSW_OK;
  return SSL_get_error(s->ssl.get(), result) == SSL_ERROR_WANT_WRITE ? TLSW_OK : TLSW_ERR_SHUTDOWN;
}

int32_t tlsw_term(uint32_t context) noexcept {
  return table().remove_context(context) ? TLSW_OK : TLSW_ERR_PARAM;
}
