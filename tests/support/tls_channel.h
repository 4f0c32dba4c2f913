// tls_channel.h - the server's end of TLS, apart from any socket: ciphertext in and out of memory.

#ifndef TESTS_SUPPORT_TLS_CHANNEL_H
#define TESTS_SUPPORT_TLS_CHANNEL_H

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

namespace tav_test {

struct tls_free {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};

// Throws std::runtime_error when the files cannot be used.
class tls_context {
 public:
  tls_context(const std::string& certificate_file, const std::string& key_file);
  SSL_CTX* get() const { return m_context.get(); }

 private:
  std::unique_ptr<SSL_CTX, tls_free> m_context;
};

class tls_channel {
 public:
  enum status { open, ended, broken };

  explicit tls_channel(const tls_context& context);

  bool ready() const { return SSL_is_init_finished(m_ssl.get()) != 0; }
  // Bytes from the client; goes on with the handshake, then decrypts.
  status feed(std::string_view wire);
  std::string take_text() { return std::move(m_text); }
  void send(std::string_view text);  // when ready
  void say_goodbye();
  std::string take_wire();  // bytes for the client

 private:
  std::unique_ptr<SSL, tls_free> m_ssl;
  BIO* m_in;  // owned by m_ssl, as m_out
  BIO* m_out;
  std::string m_text;
};

}  // namespace tav_test

#endif
