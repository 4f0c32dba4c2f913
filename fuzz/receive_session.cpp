// A whole receive session: what is read, skipped and deleted is in the input's order, whatever the
// server sends.
//
// Control bytes: failing allocation (2), conditions (6; there is no TLS). Then a line of orders,
// then what the server says behind a successful login:
//   m a message is read to its end as the interface wants it; h t header, header alone; b B body,
//   one block or all; p part header, q Q part body, one block or all; k skip part; x skip mail;
//   g take some data out; s STAT; l L list, the second one without unique ids; n next mail; d
//   delete; D delete by unique id; o NOOP; c close; C connect; T test
// Bytes that come in other pieces must give the same.

#include "fuzz_host.h"
#include "quorvelmida/taveml.h"

namespace {

using namespace quorvelmida;

constexpr char kLogin[] = "+OK ready\r\n\x1e+OK\r\n\x1e+OK\r\n\x1e";

class session {
 public:
  session(const tav_eml_pop3_settings& settings, size_t input_size)
      : m_boundary(settings),
        m_list(3),
        m_info(1, "uid", 1, 1),
        m_mail(new tav_eml_pop3_receive_mail(m_info)),
        m_mostSteps(2 * input_size + 300) {}

  // What the application has seen.
  std::string seen() const { return m_seen; }

  void play(const std::string& orders) {
    note(m_boundary.connect_mail());
    for (const char order : orders.substr(0, 64)) step(order);
    note(m_boundary.close_mail());
  }

 private:
  void note(int32_t value) { m_seen += std::to_string(value) + "\n"; }
  void note(const UtlString& text) { m_seen += fuzz::text_of(text) + "\n"; }

  void check(const tav_eml_mlutl_mail_part& part) {
    REQUIRE(part.m_nDataLength >= 0);
    REQUIRE(part.m_pData != nullptr || part.m_nDataLength == 0);
    if (part.m_pData != nullptr) REQUIRE(part.m_pData[part.m_nDataLength] == '\0');
  }

  void take(tav_eml_mlutl_mail_part& part, long length) {
    check(part);
    fuzz::output<void*> out;
    out.length = length;
    const int taken = part.get_buffer(out.data, out.length);
    if (taken != 0 && out.data != nullptr) {
      REQUIRE(length < 1 || out.length <= length);
      m_seen += out.bytes() + "|\n";
    }
    note(taken);
    check(part);
  }

  void new_mail() { m_mail.reset(new tav_eml_pop3_receive_mail(m_info)); }

  TAV_EML_RESULT part_header() {
    m_mail->set_part(new tav_eml_pop3_receive_mail_part);
    const TAV_EML_RESULT result = m_boundary.receive_part_header(*m_mail, 0);
    note(m_mail->get_part()->m_cFIleName);
    note(m_mail->get_part()->m_nContentType);
    return result;
  }

  // An unusable block leaves a mail that can be read on; anything else ends the reading. A wrong
  // order of calls, which reads nothing, has the same code.
  static bool goes_on(TAV_EML_RESULT result) {
    return result == TAV_EML_OK || result == TAV_EML_ERR_UNKNOWN;
  }

  template <typename Step>
  void until_complete(tav_eml_mlutl_mail_part& part, size_t patience, Step step) {
    size_t failures = 0;
    for (size_t steps = 0; part.m_nComplete == 0; ++steps) {
      REQUIRE(steps <= m_mostSteps);
      const TAV_EML_RESULT result = step();
      note(result);
      take(part, 0);
      failures = result == TAV_EML_OK ? 0 : failures + 1;
      if (!goes_on(result) || failures > patience) return;
    }
  }

  void whole_message() {
    new_mail();
    const TAV_EML_RESULT result = m_boundary.receive_header(*m_mail, 0);
    note(result);
    note(m_mail->m_cSubject);
    note(m_mail->m_nContentType);
    if (result != TAV_EML_OK) return;
    if (m_mail->m_nContentType < TAV_EML_CT_MULTIPART ||
        m_mail->m_nContentType > TAV_EML_CT_MULTIPART_REPORT) {
      until_complete(*m_mail, m_mostSteps, [&] { return m_boundary.receive_body(*m_mail); });
      return;
    }
    for (size_t steps = 0; m_mail->m_nReceiving != 0; ++steps) {
      REQUIRE(steps <= m_mostSteps);
      const TAV_EML_RESULT header = part_header();
      note(header);
      if (header != TAV_EML_OK) return;
      until_complete(*m_mail->get_part(), m_mostSteps,
                     [&] { return m_boundary.receive_part_body(*m_mail); });
    }
  }

  void step(char order);

  tav_eml_pop3_boundary m_boundary;
  tav_eml_pop3_mail_info_list m_list;
  tav_eml_pop3_mail_info m_info;
  std::unique_ptr<tav_eml_pop3_receive_mail> m_mail;
  size_t m_mostSteps;
  std::string m_seen;
};

void session::step(char order) {
  constexpr size_t kPatience = 3;
  m_seen += order;
  int count = 0;
  switch (order) {
    case 'm':
      return whole_message();
    case 'h':
      new_mail();
      return note(m_boundary.receive_header(*m_mail, 0));
    case 't':
      new_mail();
      return note(m_boundary.receive_header_only(*m_mail, 0));
    case 'b':
      note(m_boundary.receive_body(*m_mail));
      return check(*m_mail);
    case 'B':
      return until_complete(*m_mail, kPatience, [&] { return m_boundary.receive_body(*m_mail); });
    case 'p':
      return note(part_header());
    case 'q':
      return note(m_boundary.receive_part_body(*m_mail));
    case 'Q':
      if (m_mail->get_part() == nullptr) return;
      return until_complete(*m_mail->get_part(), kPatience,
                            [&] { return m_boundary.receive_part_body(*m_mail); });
    case 'k':
      return note(m_boundary.skip_part(*m_mail));
    case 'x':
      return note(m_boundary.skip_mail(*m_mail));
    case 'g':
      take(*m_mail, 5);
      if (m_mail->get_part() != nullptr) take(*m_mail->get_part(), 5);
      return;
    case 's':
      note(m_boundary.stat(count));
      return note(count);
    case 'l':
    case 'L':
      return note(m_boundary.list(m_list, order == 'L' ? 1 : 0));
    case 'n':
      if (m_list.search_next_mail(m_info) != 0) note(m_boundary.list_next(m_list, m_info));
      return note(m_info.m_strUID);
    case 'd':
      return note(m_boundary.delete_mail(*m_mail));
    case 'D':
      return note(m_boundary.delete_mail_by_uid(m_list, *m_mail));
    case 'o':
      return note(m_boundary.noop());
    case 'c':
      return note(m_boundary.close_mail());
    case 'C':
      return note(m_boundary.connect_mail());
    case 'T':
      return note(m_boundary.test());
    default:
      return;
  }
}

std::string run(const fuzz::conditions& how, const std::string& orders, const std::string& script) {
  const tav_eml_pop3_settings settings(fuzz::pop3_record(how));
  fuzz::host server(fuzz::protocol::pop3, kLogin + script, how);
  const fuzz::network network(how, server, script.size());
  session application(settings, script.size());
  application.play(orders);
  return application.seen() + server.heard();
}

// What a server says behind the end of a message is dropped or taken for the next reply, as the
// pieces have it.
bool reads_one_message(const std::string& orders) {
  return orders.find_first_not_of("bBpqQkxg", 1) == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, [](fuzz::input& in, tav_test::fake_memory& memory) {
    fuzz::conditions how(in);
    how.tls_mode = 0;
    const std::string orders = in.text();
    const std::string script = in.rest();
    const std::string seen = run(how, orders, script);
    if (how.fails() || memory.failed() || !reads_one_message(orders)) return;
    memory.never_fail();
    REQUIRE(run(how.in_one_piece(), orders, script) == seen);
  });
}
