#include "tls_channel.h"

#include <openssl/err.h>

#include <new>
#include <stdexcept>
#include <utility>

namespace tav_test {

tls_context::tls_context(const std::string& certificate_file, const std::string& key_file)
    : m_context(SSL_CTX_new(TLS_server_method())) {
  SSL_CTX* const context = m_context.get();
  if (!context || SSL_CTX_use_certificate_chain_file(context, certificate_file.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, key_file.c_str(), SSL_FILETYPE_PEM) != 1)
    throw std::runtime_error("TLS: cannot use " + certificate_file + " with " + key_file);
  // A client that never reads would not see the tickets, and resumption is not what is tested.
  SSL_CTX_set_num_tickets(context, 0);
}

tls_channel::tls_channel(const tls_context& context)
    : m_ssl(SSL_new(context.get())), m_in(BIO_new(BIO_s_mem())), m_out(BIO_new(BIO_s_mem())) {
  if (!m_ssl || !m_in || !m_out) throw std::bad_alloc();
  SSL_set_bio(m_ssl.get(), m_in, m_out);
  SSL_set_accept_state(m_ssl.get());
}

tls_channel::status tls_channel::feed(std::string_view wire) {
  size_t count = 0;
  ERR_clear_error();
  if (BIO_write_ex(m_in, wire.data(), wire.size(), &count) != 1) return broken;
  char block[16384];
  int result = 0;
  while ((result = SSL_read_ex(m_ssl.get(), block, sizeof block, &count)) == 1)
    m_text.append(block, count);
  const int error = SSL_get_error(m_ssl.get(), result);
  if (error == SSL_ERROR_WANT_READ) return open;
  return error == SSL_ERROR_ZERO_RETURN ? ended : broken;
}

void tls_channel::send(std::string_view text) {
  size_t count = 0;  // memory takes everything at once
  if (ready() && !text.empty()) SSL_write_ex(m_ssl.get(), text.data(), text.size(), &count);
}

void tls_channel::say_goodbye() {
  if (ready()) SSL_shutdown(m_ssl.get());
}

std::string tls_channel::take_wire() {
  std::string wire(BIO_ctrl_pending(m_out), '\0');
  size_t count = 0;
  if (!wire.empty() && BIO_read_ex(m_out, wire.data(), wire.size(), &count) != 1) count = 0;
  wire.resize(count);
  return wire;
}

}  // namespace tav_test
