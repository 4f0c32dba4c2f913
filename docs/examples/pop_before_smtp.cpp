// pop_before_smtp - tests an account that must log in over POP3 before sending, and prints the log.
//
//   POP_PASSWORD=... pop_before_smtp HOST SMTP_PORT POP3_PORT USER

#include <cstdio>
#include <cstdlib>

#include "blocks.h"
#include "quorvelmida/taveml.h"
#include "tav_dbglog.h"

using namespace quorvelmida;

namespace {

// [sink]
// Called with one whole line at a time, from the thread that logs. Level 0 is an error.
void write_line(void* context, const char* module, int level, const char* line) {
  std::fprintf(static_cast<std::FILE*>(context), "%s %d: %s\n", module, level, line);
}
// [/sink]

}  // namespace

int main(int argc, char** argv) {
  const char* const password = std::getenv("POP_PASSWORD");
  if (argc != 5 || password == nullptr) return 64;

  // [install]
  tav_dbglog_common::set_sink(write_line, stdout);
  // [/install]

  // [pop]
  _tav_eml_pop3_setting mailbox;
  mailbox.strServer = argv[1];
  mailbox.nPort = std::atoi(argv[3]);
  mailbox.strUserID = argv[4];
  mailbox.strPassword = password;
  mailbox.nTimeout = 30;
  mailbox.ucTLSMode = 2;
  mailbox.ucTLSOption[0] = 1;
  tav_eml_pop3_settings pop3(mailbox);

  _tav_eml_smtp_setting record;
  record.server = argv[1];
  record.port = std::atoi(argv[2]);
  record.timeout = 30;
  record.tlsmode = 2;
  record.tls_opt[0] = 1;
  record.auth_kind = 2;          // log in over POP3, then connect
  record.pop3_settings = &pop3;  // copied with the rest
  record.pop_wait = 1;           // seconds between the two
  const tav_eml_smtp_settings settings(record);
  // [/pop]

  // [test]
  tav_eml_smtp_boundary session(settings);
  const TAV_EML_RESULT result = session.test();  // connects, logs in, disconnects
  // [/test]
  tav_dbglog_common::set_sink(nullptr, nullptr);
  return tell("test", result);
}
