// tls_fixture.h - TLS sessions of the port with a server of the test.

#ifndef TLS_FIXTURE_H
#define TLS_FIXTURE_H

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>

#include "socket_fixture.h"
#include "tls_channel.h"
#include "tlsw.h"

namespace contract {

// From the next context on the trust store is this file: certificates in PEM form, or nothing of
// use, or no file at all. trust_hook.cpp, which a maker replaces.
void trust(const std::string& file);

using mailhost::certificate_fault;
class tls_line;
using step = std::function<void(tls_line& line)>;

// What the server is like, and how the client reaches it.
struct far_end {
  certificate_fault fault = certificate_fault::none;
  std::string host = "localhost";  // that was resolved
  std::string name = "localhost";  // in the certificate
  std::string store = "ours";      // what is trusted, where the certificate is checked
  int buffer = 0;                  // what it takes without reading it, in bytes
  std::vector<step> steps = {};    // what it does, in a thread of its own; none: the handshake
  step prepare = nullptr;          // what the client does first
};

// One session. Both ends are in this process: what happens in turn can stand in turn.
class tls_line {
 public:
  explicit tls_line(const std::vector<uint8_t>& options = {0}, int32_t limit = 0,
                    const far_end& far = {})
      : m_resolved(resolve_apart(far.host.c_str())),
        m_own(mailhost::make_identity({far.name}, far.fault)),
        m_server(m_own),
        ends(far.buffer),
        peer(SSL_new(m_server.get())) {
    EXPECT_EQ(m_resolved, 0);
    if (options[0] == 1) trust(make_store(far.store));
    SSL_set_fd(peer.get(), ends.theirs);
    m_work = std::thread([this, steps = far.steps] {
      sigset_t signals;  // OpenSSL's own sockets raise SIGPIPE
      sigfillset(&signals);
      pthread_sigmask(SIG_BLOCK, &signals, nullptr);
      for (const step& each : steps) each(*this);
      if (steps.empty()) SSL_accept(peer.get());
    });
    if (far.prepare) far.prepare(*this);
    EXPECT_EQ(tlsw_init(&context), TLSW_OK);
    TLSW_CONNECT_PARAM param{ends.ours, static_cast<uint32_t>(std::max(limit, 0)), {}, {}};
    std::copy(options.begin(), options.end(), param.option);
    const stopwatch watch;
    result = tlsw_connect_timeo(context, &param, &session);
    took = watch.elapsed();
    if (result != TLSW_OK) ends.close_ours();
    if (result != TLSW_OK || far.steps.empty()) m_work.join();
  }
  ~tls_line() {
    tlsw_term(context);
    ends.close_ours();
    if (m_work.joinable()) m_work.join();
  }

  int32_t read(std::string& text, int32_t limit = 1000, int32_t length = 100000) {
    text.assign(static_cast<size_t>(length), '#');
    const int32_t code = tlsw_read_timeo(session, text.data(), length, limit, &count);
    EXPECT_TRUE(count == 0 || (code == TLSW_OK && 0 < count && count <= length)) << count;
    text.resize(static_cast<size_t>(std::clamp(count, 0, length)));
    return code;
  }
  int32_t write(const std::string& text, int32_t limit = 1000) {
    const auto length = static_cast<int32_t>(text.size());
    const int32_t code = tlsw_write_timeo(session, text.data(), length, limit, &count);
    EXPECT_TRUE(code == TLSW_OK ? 0 < count && count <= length : count == 0) << count;
    return code;
  }
  // Until it does not work any more; gives the result.
  int32_t write_on(int32_t limit) {
    int32_t code = result;
    while (code == TLSW_OK) code = write(std::string(65536, 'x'), limit);
    return code;
  }

 private:
  // What other threads ask meanwhile is of no concern to this one.
  static int32_t resolve_apart(const char* host) {
    const int32_t result = resolve(host);
    std::thread([] { resolve("127.0.0.9"); }).join();
    return result;
  }
  std::string make_store(const std::string& kind) const {
    const std::string file = testing::TempDir() + "tlsw-ca." + std::to_string(getpid());
    std::remove(file.c_str());
    if (kind == "missing") return file;
    const auto other = mailhost::make_identity({"x"}, certificate_fault::none);
    const X509* const known = (kind == "ours" ? m_own : other).authority.get();
    std::ofstream(file) << (kind == "useless" ? kind : mailhost::to_pem(known));
    return file;
  }

  const int32_t m_resolved;
  const mailhost::identity m_own;
  const mailhost::tls_context m_server;
  std::thread m_work;

 public:
  pair ends;
  const std::unique_ptr<SSL, mailhost::ssl_free> peer;
  uint32_t context = 0;
  uint32_t session = 0;
  int32_t result = 0;  // of the handshake
  int64_t took = 0;    // milliseconds
  int32_t count = 0;   // of the latest read or write
};

inline void hold(const tls_line& line) {
  char block[2000];
  while (recv(line.ends.theirs, block, sizeof block, 0) > 0) {
  }
}

inline const std::vector<waiting> kTlsWaits = {
    {"handshake",
     [](int32_t limit) {
       far_end far;
       far.steps = {hold};
       return tls_line({0}, limit, far).result;
     },
     TLSW_ERR_TIMEOUT},
    {"TLS read",
     [](int32_t limit) {
       tls_line line;
       std::string text;
       return line.result != TLSW_OK ? line.result : line.read(text, limit);
     },
     TLSW_ERR_TIMEOUT},
    {"TLS write", [](int32_t limit) { return tls_line().write_on(limit); }, TLSW_ERR_TIMEOUT},
};

}  // namespace contract

#endif
