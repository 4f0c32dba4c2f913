// What a POP3 server says: greeting with its stamp, CAPA, STLS, logins, one-line replies, and the
// list of seen mails that is made of them.
//
// Control bytes: failing allocation (2), conditions (6), account. Then a line of commands (s STAT,
// u UIDL, z LIST, n NOOP, d DELE, r RETR, t TOP, each for the next message number; l list, e next
// mail handed out), then the script.

#include <climits>

#include "fuzz_host.h"
#include "quorvelmida/taveml.h"

namespace {

using namespace quorvelmida;
using commands = tav_eml_pop3_command;

_tav_eml_pop3_setting make_record(const fuzz::conditions& how, unsigned kind) {
  static const char* const kUsers[] = {fuzz::network::user, "", "a b", "a\nb"};
  _tav_eml_pop3_setting record = fuzz::pop3_record(how);
  record.strUserID = kUsers[kind % 4];
  record.nAPOP = kind / 4 % 2;
  return record;
}

// One command; the connection stands exactly when it succeeded.
void give_command(char command, const tav_eml_pop3_settings& settings, int& sock,
                  TAV_EML_TLS_INFO& tls, int number, UtlString& text) {
  TAV_EML_RESULT result = TAV_EML_OK;
  int value = -1;
  int count = -1;
  switch (command) {
    case 's':
      result = commands::get_stat(&settings, sock, tls, value, count);
      if (result == TAV_EML_OK) REQUIRE(value >= 0 && count >= 0 && count <= 1000000);
      if (result != TAV_EML_ERR_REPLY || sock == 0) break;
      REQUIRE(tls.tls_session == 0);  // numbers were missing: the socket is the caller's to close
      tav_eml_mlutl_mail_net().close_socket(sock);
      sock = 0;
      break;
    case 'u':
      result = commands::get_uniq_id(&settings, sock, tls, number, text);
      REQUIRE(result == TAV_EML_OK || result == TAV_EML_ERR_NO_MEMORY || text.IsEmpty());
      break;
    case 'z':
      result = commands::get_size(&settings, sock, tls, number, value);
      if (result == TAV_EML_OK) REQUIRE(value >= 0);
      break;
    case 'n':
      result = commands::noop(&settings, sock, tls);
      break;
    case 'd':
      result = commands::delete_mail(&settings, sock, tls, number);
      break;
    case 'r':
      result = commands::read_open(&settings, sock, tls, number, text);
      break;
    case 't':
      result = commands::GetTop(&settings, sock, tls, number);
      break;
    default:
      return;
  }
  // A text for which there is no memory does not cost the connection.
  REQUIRE((result == TAV_EML_OK) == (sock != 0) || result == TAV_EML_ERR_NO_MEMORY);
  REQUIRE(sock != 0 || (tls.tls_session == 0 && tls.tls_ctx == 0));
}

void command_session(const tav_eml_pop3_settings& settings, const std::string& orders) {
  int sock = -1;
  TAV_EML_TLS_INFO tls;
  UtlString text("before");  // memory may run out here, as long as nothing is open
  const TAV_EML_RESULT result = commands::connect_start(&settings, sock, tls);
  REQUIRE((result == TAV_EML_OK) == (sock > 0));
  REQUIRE((tls.tls_session != 0) == (sock > 0 && settings.m_ucTLSMode != 0));
  int number = 0;
  for (const char command : orders.substr(0, 64))
    give_command(command, settings, sock, tls, ++number, text);
  commands::disconnect(&settings, sock, tls);
  REQUIRE(sock == 0);
}

// The facade's list, brought in line and handed out.
void list_session(const tav_eml_pop3_settings& settings, const std::string& orders) {
  constexpr int kCapacity = 5;
  tav_eml_pop3_boundary boundary(settings);
  tav_eml_pop3_mail_info_list list(kCapacity);
  boundary.connect_mail();
  int count = -1;
  if (boundary.stat(count) == TAV_EML_OK) REQUIRE(count >= 0);
  bool is_listed = false;
  for (const char order : orders.substr(0, 16)) {
    tav_eml_pop3_mail_info info;
    if (order == 'l')
      is_listed = boundary.list(list, static_cast<int>(orders.size() % 2)) == TAV_EML_OK;
    if (order == 'e' && list.search_next_mail(info) != 0) {
      REQUIRE(info.m_nMailNo > 0 || !is_listed);
      boundary.list_next(list, info);
    }
    REQUIRE(list.m_MailInfoVector.Count() <= kCapacity);
    REQUIRE(list.get_next_id() >= 1);
  }
}

void run(fuzz::input& in, const tav_test::fake_memory&) {
  const fuzz::conditions how(in);
  const tav_eml_pop3_settings settings(make_record(how, in.number()));
  const std::string orders = in.text();
  const size_t size = in.size();
  fuzz::host server(fuzz::protocol::pop3, in.rest(), how);
  const fuzz::network network(how, server, size);
  if (orders.find('l') != std::string::npos)
    list_session(settings, orders);
  else
    command_session(settings, orders);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, run);
}
