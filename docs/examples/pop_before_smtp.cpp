// pop_before_smtp - tests an account that must log in over POP3 before sending. Prints the log and
// what the servers said.
//
//   POP_PASSWORD=... pop_before_smtp HOST SMTP_PORT POP3_PORT USER

#include <cstdlib>

// [watch]
#include <cstdio>

// [/watch]
// [account]
#include "quorvelmida/taveml_easy.h"
// [/account]
// [watch]
#include "tav_dbglog.h"
#include "tav_wiretap.h"

// [/watch]
// [account]

using namespace quorvelmida;

// [/account]
namespace {

// [watch]
// Called with one whole line at a time, from the thread that logs. Level 0 is an error.
void write_line(void*, const char* module, int level, const char* line) {
  std::printf("%s %d: %s\n", module, level, line);
}

// Under TLS too. What is sent is left out: it contains passwords.
void write_reply(void*, TAV_WIRETAP_EVENT event, const char* bytes, size_t length) {
  if (event == TAV_WIRETAP_RECEIVED) std::fwrite(bytes, 1, length, stdout);
}

void watch() {
  tav_dbglog_common::set_sink(write_line, nullptr);
  tav_wiretap_set(write_reply, nullptr);
}
// [/watch]

// [account]
TAV_EML_RESULT test_account(const char* host, int smtp_port, int pop3_port, const char* user,
                            const char* password) {
  tav_eml_pop3_settings mailbox(easy::pop3_account(host, pop3_port, user, password));
  _tav_eml_smtp_setting record = easy::smtp_account(host, smtp_port, "", "");
  record.auth_kind = 2;             // log in over POP3, then connect
  record.pop3_settings = &mailbox;  // copied with the rest
  record.pop_wait = 1;              // seconds between the two; 0 means 300 ms
  const tav_eml_smtp_settings settings(record);
  return tav_eml_smtp_boundary(settings).test();  // connects, logs in, disconnects
}
// [/account]

}  // namespace

int main(int argc, char** argv) {
  const char* const password = std::getenv("POP_PASSWORD");
  if (argc != 5 || password == nullptr) return 64;
  watch();
  const TAV_EML_RESULT result =
      test_account(argv[1], std::atoi(argv[2]), std::atoi(argv[3]), argv[4], password);
  tav_dbglog_common::set_sink(nullptr, nullptr);
  tav_wiretap_set(nullptr, nullptr);
  std::printf("%s\n", easy::result_name(result));
  return result == TAV_EML_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
