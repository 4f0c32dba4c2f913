// composed_mail.h - the pieces of the large message for the clients that compose it by hand.

#ifndef BENCH_COMPOSED_MAIL_H
#define BENCH_COMPOSED_MAIL_H

#include <string>

#include "mail_text.h"

namespace bench {

constexpr char kBoundary[] = "=_bench";

// Everything before the attachment's data.
inline std::string big_mail_start() {
  return mail_header() +
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

inline std::string small_mail(size_t size) {
  return mail_header() +
         "MIME-Version: 1.0\r\n"
         "Content-Type: text/plain; charset=utf-8\r\n"
         "Content-Transfer-Encoding: 7bit\r\n"
         "\r\n" +
         mail_text(size);
}

constexpr char kBigMailEnd[] = "--=_bench--";

}  // namespace bench

#endif
