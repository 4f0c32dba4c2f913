// server.h - shared by the two servers: a listening socket, one connection at a time, the end.

#ifndef BENCH_SERVER_H
#define BENCH_SERVER_H

#include <openssl/ssl.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace bench {

// One connection, plain or TLS. Every wait is bounded.
class channel {
 public:
  channel(int fd, SSL_CTX* tls);
  channel(const channel&) = delete;
  channel& operator=(const channel&) = delete;
  ~channel();

  bool is_open() const { return m_bOpen; }
  // Bytes read; 0 at the end and on failure.
  size_t read(char* room, size_t size);
  bool write(std::string_view bytes);
  // The next line without its line end; later data stays for the next call. False at the end. The
  // view is valid until the next call.
  bool read_line(std::string_view& line);
  // Takes what was received after the last line.
  std::string_view take_rest();

 private:
  static constexpr size_t kLineRoom = 4096;

  int m_nFd;
  SSL* m_pTls;
  bool m_bOpen;
  char m_aLines[kLineRoom];
  size_t m_uFirst;
  size_t m_uLast;
};

struct server_options {
  std::string certificate;  // PEM with key; empty: plain
  int max_seconds = 120;
};

// Prints the port, then serves connections on 127.0.0.1 until standard input or the time ends.
// Returns the exit code.
int serve(const server_options& options, const std::function<void(channel&)>& talk);

// The value after `name` in the arguments, or `otherwise`.
std::string option(int argc, char** argv, const char* name, const char* otherwise = "");

}  // namespace bench

#endif
