// tls_channel.h - the host's end of TLS, apart from any socket: ciphertext in and out of memory.

#ifndef MAILHOST_TLS_CHANNEL_H
#define MAILHOST_TLS_CHANNEL_H

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

#include "certificate.h"

namespace mailhost {

struct ssl_free {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};

// Both throw std::runtime_error when they cannot be used.
class tls_context {
 public:
  explicit tls_context(const identity& own);
  tls_context(const std::string& certificate_file, const std::string& key_file);
  SSL_CTX* get() const { return m_context.get(); }

 private:
  std::unique_ptr<SSL_CTX, ssl_free> m_context;
};

class tls_channel {
 public:
  enum status { open, ended, broken };

  explicit tls_channel(const tls_context& context);

  bool is_ready() const { return SSL_is_init_finished(m_ssl.get()) != 0; }
  // Bytes from the client; goes on with the handshake, then decrypts.
  status feed(std::string_view wire);
  std::string take_text() { return std::move(m_text); }
  void send(std::string_view text);  // when ready
  void say_goodbye();
  std::string take_wire();  // bytes for the client

  // "TLSv1.3, TLS_AES_256_GCM_SHA384"
  std::string description() const;
  // Of `broken`: what the library says, which names the alert that the client sent.
  const std::string& problem() const { return m_problem; }

 private:
  std::unique_ptr<SSL, ssl_free> m_ssl;
  BIO* m_in;  // owned by m_ssl, as m_out
  BIO* m_out;
  std::string m_text;
  std::string m_problem;
};

}  // namespace mailhost

#endif
