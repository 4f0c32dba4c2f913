#include "tls_channel.h"

#include <openssl/err.h>

#include <stdexcept>

namespace mailhost {
namespace {

std::string openssl_problem() {
  const char* const reason = ERR_reason_error_string(ERR_peek_error());
  ERR_clear_error();
  return reason != nullptr ? reason : "unknown reason";
}

}  // namespace

tls_context::tls_context(const identity& own) : m_context(SSL_CTX_new(TLS_server_method())) {
  if (!m_context || SSL_CTX_use_certificate(get(), own.certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(get(), own.key.get()) != 1)
    throw std::runtime_error("cannot use the certificate: " + openssl_problem());
}

tls_context::tls_context(const std::string& certificate_file, const std::string& key_file)
    : m_context(SSL_CTX_new(TLS_server_method())) {
  if (!m_context || SSL_CTX_use_certificate_chain_file(get(), certificate_file.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(get(), key_file.c_str(), SSL_FILETYPE_PEM) != 1)
    throw std::runtime_error("cannot use " + certificate_file + " with " + key_file + ": " +
                             openssl_problem());
}

tls_channel::tls_channel(const tls_context& context)
    : m_ssl(SSL_new(context.get())), m_in(BIO_new(BIO_s_mem())), m_out(BIO_new(BIO_s_mem())) {
  if (!m_ssl || m_in == nullptr || m_out == nullptr) throw std::runtime_error("no memory for TLS");
  SSL_set_bio(m_ssl.get(), m_in, m_out);
  SSL_set_accept_state(m_ssl.get());
}

tls_channel::status tls_channel::feed(std::string_view wire) {
  BIO_write(m_in, wire.data(), static_cast<int>(wire.size()));
  char block[16384];
  for (;;) {
    ERR_clear_error();
    const int count = SSL_read(m_ssl.get(), block, sizeof block);
    if (count > 0) {
      m_text.append(block, static_cast<size_t>(count));
      continue;
    }
    const int reason = SSL_get_error(m_ssl.get(), count);
    if (reason == SSL_ERROR_WANT_READ) return open;
    if (reason == SSL_ERROR_ZERO_RETURN) return ended;
    m_problem = openssl_problem();
    return broken;
  }
}

void tls_channel::send(std::string_view text) {
  SSL_write(m_ssl.get(), text.data(), static_cast<int>(text.size()));
}

void tls_channel::say_goodbye() {
  if (is_ready()) SSL_shutdown(m_ssl.get());
}

std::string tls_channel::take_wire() {
  std::string wire(BIO_ctrl_pending(m_out), '\0');
  if (!wire.empty()) BIO_read(m_out, wire.data(), static_cast<int>(wire.size()));
  return wire;
}

std::string tls_channel::description() const {
  return std::string(SSL_get_version(m_ssl.get())) + ", " + SSL_get_cipher_name(m_ssl.get());
}

}  // namespace mailhost
