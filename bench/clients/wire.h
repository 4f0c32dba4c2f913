// wire.h - a plain socket, or OpenSSL on it, for the clients that are written by hand.

#ifndef BENCH_WIRE_H
#define BENCH_WIRE_H

#include <openssl/ssl.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace bench {

// A connection to 127.0.0.1. A failure ends the program.
class wire {
 public:
  explicit wire(uint16_t port, bool tls = false);
  wire(const wire&) = delete;
  wire& operator=(const wire&) = delete;
  ~wire();

  int fd() const { return m_nFd; }
  size_t read(char* room, size_t size);
  void write(std::string_view bytes);
  // Reads a reply of one or more lines, which must begin with `wanted`. Nothing may follow it.
  void expect(char wanted);
  void command(std::string_view line, char wanted) {
    write(line);
    expect(wanted);
  }

  // SMTP up to the reply to DATA, and from the end line on.
  void open_mail();
  void close_mail();
  // POP3 up to the login.
  void log_in();

 private:
  int m_nFd;
  SSL_CTX* m_pContext;
  SSL* m_pTls;
};

}  // namespace bench

#endif
