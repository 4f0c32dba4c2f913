// source.cpp - a small fast POP3 server with synthetic mails.
//
//   bench_source --file FILE [--certificate PEM] [--max-seconds N]
//   bench_source --mails N --size BYTES [--certificate PEM] [--max-seconds N]
//
// The first form has one mail with FILE as a base64 attachment in lines of 76 characters, the
// second N copies of one text mail. Prints its port, and ends with standard input.

#include <cstdio>
#include <cstdlib>

#include "mail_text.h"
#include "periodic_file.h"
#include "server.h"

namespace {

// The text before the attachment's lines, and after them.
std::string big_mail_start() {
  return bench::mail_header() +
         "MIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"=_bench\"\r\n"
         "\r\n"
         "--=_bench\r\n"
         "Content-Type: text/plain; charset=utf-8\r\n"
         "Content-Transfer-Encoding: 7bit\r\n"
         "\r\n"
         "The file is attached.\r\n"
         "\r\n"
         "--=_bench\r\n"
         "Content-Type: application/pdf; name=\"scan.pdf\"\r\n"
         "Content-Transfer-Encoding: base64\r\n"
         "Content-Disposition: attachment; filename=\"scan.pdf\"\r\n"
         "\r\n";
}
constexpr char kBigMailEnd[] = "--=_bench--\r\n";

std::string small_mail(size_t size) {
  return bench::mail_header() +
         "MIME-Version: 1.0\r\n"
         "Content-Type: text/plain; charset=utf-8\r\n"
         "Content-Transfer-Encoding: 7bit\r\n"
         "\r\n" +
         bench::mail_text(size);
}

class mailbox {
 public:
  // Mails of `start`, the lines of `file`, and `end`.
  mailbox(const std::string& start, bench::encoded_file file, const std::string& end, long count)
      : m_cStart("+OK\r\n" + start),
        m_cFile(std::move(file)),
        m_cEnd(end + ".\r\n"),
        m_uSize(start.size() + m_cFile.size() + end.size()),
        m_lCount(count) {}

  void talk(bench::channel& peer) const {
    if (!peer.write("+OK source <1.2@bench.example>\r\n")) return;
    std::string_view line;
    while (peer.read_line(line)) {
      const std::string verb(line.substr(0, 4));
      const bool is_written = verb == "RETR" ? write_mail(peer) : peer.write(answer(verb, line));
      if (!is_written || verb == "QUIT") return;
    }
  }

 private:
  bool write_mail(bench::channel& peer) const {
    if (m_cFile.size() == 0) return peer.write(m_cStart + m_cEnd);
    return peer.write(m_cStart) &&
           m_cFile.for_each([&](const std::string& lines) { return peer.write(lines); }) &&
           peer.write(m_cEnd);
  }

  std::string answer(const std::string& verb, std::string_view line) const {
    if (verb == "CAPA") return "+OK\r\nUSER\r\nTOP\r\nUIDL\r\n.\r\n";
    if (verb == "TOP ") return m_cStart.substr(0, m_cStart.find("\r\n\r\n") + 4) + ".\r\n";
    if (verb == "STAT") {
      return "+OK " + std::to_string(m_lCount) + " " +
             std::to_string(m_uSize * static_cast<size_t>(m_lCount)) + "\r\n";
    }
    if (verb == "LIST" || verb == "UIDL") return list(verb == "LIST", line);
    return "+OK\r\n";
  }

  std::string list(bool is_size, std::string_view line) const {
    const auto entry = [&](long number) {
      return std::to_string(number) + " " +
             (is_size ? std::to_string(m_uSize) : "u" + std::to_string(number)) + "\r\n";
    };
    if (line.size() > 5) return "+OK " + entry(std::atol(std::string(line.substr(5)).c_str()));
    std::string all = "+OK\r\n";
    for (long number = 1; number <= m_lCount; ++number) all += entry(number);
    return all + ".\r\n";
  }

  std::string m_cStart;
  bench::encoded_file m_cFile;
  std::string m_cEnd;
  size_t m_uSize;
  long m_lCount;
};

}  // namespace

int main(int argc, char** argv) {
  bench::server_options options;
  options.certificate = bench::option(argc, argv, "--certificate");
  options.max_seconds = std::stoi(bench::option(argc, argv, "--max-seconds", "120"));
  const std::string file = bench::option(argc, argv, "--file");
  const long count = file.empty() ? std::stol(bench::option(argc, argv, "--mails", "1")) : 1;
  const size_t size = std::stoul(bench::option(argc, argv, "--size", "10000"));
  constexpr size_t kLineBytes = 57;
  const mailbox box = file.empty()
                          ? mailbox(small_mail(size), {}, "", count)
                          : mailbox(big_mail_start(), bench::encode_periodic_file(file, kLineBytes),
                                    kBigMailEnd, count);
  return bench::serve(options, [&](bench::channel& peer) { box.talk(peer); });
}
