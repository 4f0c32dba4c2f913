// sink.cpp - a small fast SMTP server that takes mails and counts their bytes.
//
//   bench_sink [--certificate PEM] [--spool FILE] [--max-seconds N]
//
// Prints its port, and at the end of standard input a line of JSON with its totals. With --spool
// the data of the messages is kept as received, to be checked after the run.

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "end_watch.h"
#include "server.h"

namespace {

constexpr size_t kRoom = 256 * 1024;

struct totals {
  unsigned long mails = 0;
  unsigned long long bytes = 0;  // of the data, end line included
};

class sink {
 public:
  explicit sink(const std::string& spool)
      : m_cRoom(kRoom), m_pSpool(spool.empty() ? nullptr : std::fopen(spool.c_str(), "wb")) {}
  sink(const sink&) = delete;
  sink& operator=(const sink&) = delete;
  ~sink() {
    if (m_pSpool != nullptr) std::fclose(m_pSpool);
  }

  void talk(bench::channel& peer) {
    if (!peer.write("220 sink ESMTP\r\n")) return;
    std::string_view line;
    while (peer.read_line(line)) {
      const std::string verb(line.substr(0, 4));
      if (verb == "QUIT") {
        peer.write("221 Bye\r\n");
        return;
      }
      if (verb == "DATA") {
        if (!peer.write("354 Go ahead\r\n") || !take_data(peer)) return;
      }
      if (!peer.write(verb == "EHLO" ? "250-sink\r\n250 8BITMIME\r\n" : "250 OK\r\n")) return;
    }
  }

  const totals& taken() const { return m_cTotals; }

 private:
  bool take_data(bench::channel& peer) {
    bench::end_watch watch;
    const std::string_view early = peer.take_rest();
    if (!early.empty() && take(watch, early.data(), early.size())) return true;
    while (const size_t count = peer.read(m_cRoom.data(), m_cRoom.size())) {
      if (take(watch, m_cRoom.data(), count)) return true;
    }
    return false;
  }

  bool take(bench::end_watch& watch, const char* bytes, size_t count) {
    m_cTotals.bytes += count;
    if (m_pSpool != nullptr) std::fwrite(bytes, 1, count, m_pSpool);
    if (!watch.is_end(bytes, count)) return false;
    ++m_cTotals.mails;
    return true;
  }

  std::vector<char> m_cRoom;
  std::FILE* m_pSpool;
  totals m_cTotals;
};

}  // namespace

int main(int argc, char** argv) {
  bench::server_options options;
  options.certificate = bench::option(argc, argv, "--certificate");
  options.max_seconds = std::stoi(bench::option(argc, argv, "--max-seconds", "120"));
  sink taker(bench::option(argc, argv, "--spool"));
  const int code = bench::serve(options, [&](bench::channel& peer) { taker.talk(peer); });
  std::printf("{\"mails\": %lu, \"bytes\": %llu}\n", taker.taken().mails, taker.taken().bytes);
  return code;
}
