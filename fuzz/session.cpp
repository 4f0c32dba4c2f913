// Whole sessions in which the server says what the input says.
//
// Control bytes: failing allocation (2); bytes per receive (0: all); the network call that fails
// (0: none); flags (1 all later calls fail too, 2 with a time-out, 4 the server closes when it has
// said all); TLS mode; kind of login. Then a line: "s" sends a mail, "t" tests the login, capital
// letters are the steps of receiving. The rest is what the server says; a 0x1E waits for the
// client.
//
// This device has no tokens: nothing calls fake_platform::bear(), so tav_bearer_get is missing.

#include <algorithm>
#include <cstring>

#include "fake_platform.h"
#include "fuzz_input.h"
#include "quorvelmida/taveml.h"
#include "tav_dbglog.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using tav_test::fake_platform;
using tav_test::peer_action;

struct server : tav_test::mail_host {
  std::unique_ptr<tav_test::mail_peer> accept() override { return std::make_unique<peer>(*this); }

  struct peer : tav_test::mail_peer {
    explicit peer(server& whose) : m_server(whose) {}
    void connected(bool) override { say(); }
    void tls_started() override {}
    void closed() override {}
    void received(std::string_view bytes) override {
      if (bytes.back() == '\n') say();
      if (bytes == "STARTTLS\r\n" || bytes == "STLS\r\n")
        actions.push_back({peer_action::start_tls});
    }
    void say() {
      std::string& left = m_server.words;
      const size_t end = std::min(left.find('\x1e'), left.size());
      actions.push_back({peer_action::send, left.substr(0, end)});
      left.erase(0, end + 1);
      if (left.empty() && m_server.closes) actions.push_back({peer_action::close});
    }
    server& m_server;
  };
  std::string words;  // that it has still to say, in whatever connections
  bool closes = false;
};

void send(const tav_eml_smtp_settings& settings) {
  tav_eml_smtp_send_mail mail;
  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  mail.m_cFrom = tav_eml_mlutl_mail_address("a@b.example");
  mail.m_cTo = tav_eml_mlutl_mail_address("c@d.example");
  mail.m_cSubject = "\xe6\x96\x87 mail";
  mail.m_cDate = mail.m_cBoundaryString = "today";
  mail.set_part(new tav_eml_smtp_send_mail_part);
  mail.m_pPart->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  mail.m_nTransferEncoding = mail.m_pPart->m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_nCharSet = TAV_EML_CS_ISO_2022_JP;
  tav_test::give(mail, "text");
  tav_test::give(*mail.m_pPart, "data");
  tav_eml_smtp_boundary outbox(settings);
  if (outbox.connect_mail() == TAV_EML_OK && outbox.send_header(mail) == TAV_EML_OK &&
      outbox.send_body(mail) == TAV_EML_OK && outbox.send_part_header(mail) == TAV_EML_OK &&
      outbox.send_part_body(mail) == TAV_EML_OK && outbox.close_mail(mail) == TAV_EML_OK)
    outbox.connect_mail();  // what is left of the first connection is gone
  outbox.abort_mail();
}

// Receives until all is there, or a failure that is not just an unusable block.
template <typename Receive>
void read(tav_eml_mlutl_mail_part* part, Receive receive) {
  for (int failures = 0; part != nullptr && part->m_nComplete == 0 && failures < 4;) {
    const TAV_EML_RESULT result = receive();
    failures = result == TAV_EML_OK ? 0 : result == TAV_EML_ERR_UNKNOWN ? failures + 1 : 4;
    part->free_buffer();
  }
}

void receive(const tav_eml_pop3_settings& settings, const std::string& steps) {
  tav_eml_pop3_boundary mailbox(settings);
  tav_eml_pop3_mail_info_list list(3);
  tav_eml_pop3_mail_info info(1, "uid", 1, 1);
  auto mail = std::make_unique<tav_eml_pop3_receive_mail>(info);
  int count = 0;
  for (const char step : steps) {
    if (step == 'H' || step == 'O') mail = std::make_unique<tav_eml_pop3_receive_mail>(info);
    if (step == 'P') mail->set_part(new tav_eml_pop3_receive_mail_part);
    if (step == 'C') mailbox.connect_mail();
    if (step == 'E') mailbox.close_mail();
    if (step == 'T') mailbox.test();
    if (step == 'S') mailbox.stat(count);
    if (step == 'L' || step == 'M') mailbox.list(list, step == 'M');
    if (step == 'N' && list.search_next_mail(info) != 0) mailbox.list_next(list, info);
    if (step == 'H') mailbox.receive_header(*mail, 0);
    if (step == 'O') mailbox.receive_header_only(*mail, 0);
    if (step == 'B') read(mail.get(), [&] { return mailbox.receive_body(*mail); });
    if (step == 'P') mailbox.receive_part_header(*mail, 0);
    if (step == 'Q') read(mail->get_part(), [&] { return mailbox.receive_part_body(*mail); });
    if (step == 'K') mailbox.skip_part(*mail);
    if (step == 'X') mailbox.skip_mail(*mail);
    if (step == 'D') mailbox.delete_mail(*mail);
    if (step == 'U') mailbox.delete_mail_by_uid(list, *mail);
    if (step == 'R') mailbox.noop();
  }
}

// The password, and the same in base64.
void check_log_line(void*, const char*, int, const char* line) {
  assert(std::strstr(line, "tanstaaf") == nullptr && std::strstr(line, "dGFuc3Rh") == nullptr);
}

void run(fuzz::input& in, const tav_test::fake_memory&) {
  fake_platform net;
  const unsigned recv = in.number(), failing = in.number(), flags = in.number();
  const unsigned tls = in.number() % 4, login = in.number();
  const size_t end = std::min(in.rest.find('\n'), in.rest.size());
  const std::string steps = in.rest.substr(0, std::min<size_t>(end, 64));
  server host;
  host.words = in.rest.erase(0, end + 1);
  const size_t most_calls = 20000 + 8 * host.words.size();
  host.closes = (flags & 4) != 0;
  const auto mode = tls == 1 ? tav_test::tls_mode::implicit : tav_test::tls_mode::plain;
  const auto how =
      (flags & 2) != 0 ? fake_platform::outcome::timeout : fake_platform::outcome::error;
  net.serve("192.0.2.1", 25, host, mode);
  net.serve("192.0.2.1", 110, host, mode);
  if (recv != 0) net.recv_limit(recv);
  (flags & 1) != 0 ? net.fail_any_from(failing, how) : net.fail_any(failing, how);

  _tav_eml_pop3_setting from;
  _tav_eml_smtp_setting to;
  from.strServer = to.server = "192.0.2.1";
  from.strUserID = to.user_id = "user";
  from.strPassword = to.password = "tanstaaf";
  from.nPort = 110;
  to.port = 25;
  from.nAPOP = static_cast<int32_t>(login % 2);
  to.auth_kind = static_cast<int32_t>(login % 5);
  const bool is_pop3 = steps[0] < 'a';
  from.ucTLSMode = static_cast<uint8_t>(is_pop3 ? tls : 0);
  to.tlsmode = static_cast<uint8_t>(tls);
  tav_eml_pop3_settings pop3(from);
  to.pop3_settings = &pop3;
  const tav_eml_smtp_settings smtp(to);
  if (steps == "t") tav_eml_smtp_boundary(smtp).test();
  is_pop3 ? receive(pop3, steps) : send(smtp);
  assert(net.clean() && net.any_calls() <= most_calls);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tav_dbglog_common::set_sink(check_log_line, nullptr);
  return fuzz::try_input({{data, data + size}}, run);
}
