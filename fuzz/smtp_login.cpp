// What an SMTP server says before a mail: greeting, EHLO, STARTTLS, challenges, and long replies.
//
// Control bytes: failing allocation (2), conditions (6), kind of login, account. Then the script.

#include "fuzz_host.h"
#include "quorvelmida/taveml.h"

namespace {

using namespace quorvelmida;

void set_account(_tav_eml_smtp_setting& record, unsigned kind) {
  static const char* const kUsers[] = {fuzz::network::user, "", "a\"b\\c", "\xe3\x81\x82", "a\rb"};
  record.user_id = kUsers[kind % 5];
  record.password = fuzz::network::password;
  // 93 bytes fit every method, 94 do not.
  if (kind / 5 % 4 == 1) record.password = std::string(93, 'p').c_str();
  if (kind / 5 % 4 == 2) record.password = std::string(94, 'p').c_str();
  if (kind / 20 % 2 == 1) record.helo_domain = std::string(1016, 'h').c_str();
}

void run(fuzz::input& in, const tav_test::fake_memory&) {
  const fuzz::conditions how(in);
  _tav_eml_smtp_setting record = fuzz::smtp_record(how);
  record.auth_kind = static_cast<int32_t>(in.number() % 5);
  set_account(record, in.number());

  _tav_eml_pop3_setting pop3 = fuzz::pop3_record(how);
  pop3.nTimeout = 0;
  pop3.ucTLSMode = 0;
  tav_eml_pop3_settings pop3_settings(pop3);
  record.pop3_settings = &pop3_settings;
  const tav_eml_smtp_settings settings(record);

  const size_t size = in.size();
  // A POP3 login in front speaks another protocol.
  fuzz::host server(fuzz::protocol::smtp, in.rest(), how);
  const fuzz::network network(how, server, size);
  tav_eml_smtp_command command;
  ntssmtp_fileptr* session = nullptr;
  const TAV_EML_RESULT result = command.tav_eml_smtp_connect_start(&settings, &session);
  REQUIRE((result == TAV_EML_OK) == (session != nullptr));
  if (session == nullptr) return;
  REQUIRE(session->status == SMTP_CONNECT && session->sock > 0);
  REQUIRE((record.tlsmode == 0) == (session->tls_info.tls_session == 0));
  if (command.tav_eml_smtp_disconnect(&settings, session) != TAV_EML_OK) {
    tav_eml_mlutl_mail_net().end_tls(session->tls_info);
    tav_eml_mlutl_mail_net().close_socket(session->sock);
  }
  UtlOS::MemFree(session->send_buffer);
  UtlOS::MemFree(session->recv_buffer);
  UtlOS::MemFree(session);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, run);
}
