// smtp_login.cpp - logs in to an SMTP server through the library, once for each account.
//
//   smtp_login HOST PORT TLS_MODE < accounts
//
// An account is a line "user TAB password". For each one the result code is written, one a line.
// The debug log goes to the standard error output (TAV_DBGLOG=stderr).

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "quorvelmida/taveml.h"

int main(int argc, char** argv) {
  using namespace quorvelmida;
  if (argc != 4) return 64;
  _tav_eml_smtp_setting record;
  record.server = argv[1];
  record.port = std::atoi(argv[2]);
  record.tlsmode = static_cast<uint8_t>(std::atoi(argv[3]));
  record.tls_opt[0] = 1;
  record.timeout = 20;
  record.auth_kind = 1;
  for (std::string line; std::getline(std::cin, line);) {
    const auto tab = line.find('\t');
    record.user_id = line.substr(0, tab).c_str();
    record.password = line.substr(tab + 1).c_str();
    const tav_eml_smtp_settings settings(record);
    tav_eml_smtp_boundary boundary(settings);
    std::printf("%08x\n", static_cast<unsigned int>(boundary.test()));
  }
  return 0;
}
