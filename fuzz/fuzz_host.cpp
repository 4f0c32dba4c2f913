#include "fuzz_host.h"

#include <algorithm>
#include <climits>
#include <utility>

#include "plain_base64.h"
#include "tav_dbglog.h"

namespace fuzz {
namespace {

constexpr char kAddress[] = "192.0.2.1";
constexpr char kPasswordInBase64[] = "dGFuc3RhYWYtdGFuc3RhYW";

// Of both protocols, because a POP3 login may come before SMTP.
bool begins_with_verb(const std::string& line) {
  static const char* const kVerbs[] = {"EHLO ",  "HELO ",  "MAIL FROM:<", "RCPT TO:<", "DATA\r",
                                       "QUIT\r", "AUTH ",  "STARTTLS\r",  "USER ",     "PASS ",
                                       "APOP ",  "CAPA\r", "STLS\r",      "STAT\r",    "LIST ",
                                       "UIDL ",  "RETR ",  "TOP ",        "DELE ",     "NOOP\r"};
  return std::any_of(std::begin(kVerbs), std::end(kVerbs), [&](const char* verb) {
    return line.compare(0, std::strlen(verb), verb) == 0;
  });
}

// One command and nothing else: no value has smuggled a line in.
bool is_clean_line(const std::string& line) {
  const size_t end = line.find_first_of(std::string("\r\n\0", 3));
  return end + 2 == line.size() && line.compare(end, 2, "\r\n") == 0;
}

void check_log_line(void*, const char*, int, const char* line) {
  REQUIRE(std::strstr(line, network::password) == nullptr);
  REQUIRE(std::strstr(line, kPasswordInBase64) == nullptr);
}

}  // namespace

class peer : public tav_test::mail_peer {
 public:
  explicit peer(host& server) : m_host(server) {}

  void connected(bool) override { play(); }
  void tls_started() override {}
  void closed() override {}

  void received(std::string_view bytes) override {
    for (const char ch : bytes) {
      m_host.m_heard += ch;
      m_line += ch;
      if (ch != '\n') continue;
      const std::string line = std::exchange(m_line, "");
      check(line);
      if (m_inData && line != ".\r\n") continue;
      m_inData = false;
      m_isData = m_host.m_kind == protocol::smtp && line == "DATA\r\n";
      play();
    }
  }

 private:
  // Message text is not checked: from DATA on until the line that ends it, whatever the reply was.
  void check(const std::string& line) {
    if (m_mayBeText) {
      m_mayBeText = line != ".\r\n";
      return;
    }
    m_mayBeText = m_host.m_kind == protocol::smtp && line == "DATA\r\n";
    m_logsIn = m_logsIn || line.compare(0, 5, "AUTH ") == 0;
    if (!m_host.m_isStrict) return;
    REQUIRE(is_clean_line(line));
    REQUIRE(m_logsIn || begins_with_verb(line));
  }

  void play() {
    const std::string& script = m_host.m_script;
    size_t& next = m_host.m_next;
    if (next >= script.size()) {
      if (m_host.m_agrees) say(agreement());
      return;
    }
    while (next < script.size()) {
      const size_t mark = std::min(script.find_first_of("\x1c\x1d\x1e\x1f", next), script.size());
      std::string bytes = script.substr(next, mark - next);
      next = mark + 1;
      if (std::exchange(m_isCoded, false)) bytes = tav_test::plain_encode(bytes) + "\r\n";
      if (!bytes.empty()) say(bytes);
      const char kind = mark < script.size() ? script[mark] : kNextLine;
      if (kind == kNextLine) return;
      if (kind == kStartTls) actions.push_back({tav_test::peer_action::start_tls});
      if (kind == kClose) actions.push_back({tav_test::peer_action::close});
      m_isCoded = kind == kBase64;
    }
  }

  std::string agreement() const {
    if (m_host.m_kind == protocol::pop3) return "+OK 1 1\r\n";
    return m_isData ? "354 go on\r\n" : "250 ok\r\n";
  }

  void say(const std::string& bytes) {
    if (m_isData) m_inData = bytes[0] == '3';
    m_isData = false;
    actions.push_back({tav_test::peer_action::send, bytes});
  }

  host& m_host;
  std::string m_line;
  bool m_mayBeText = false;
  bool m_logsIn = false;  // answers to challenges are no commands
  bool m_isCoded = false;
  bool m_isData = false;  // the line was DATA: the reply decides
  bool m_inData = false;
};

std::unique_ptr<tav_test::mail_peer> host::accept() { return std::make_unique<peer>(*this); }

conditions::conditions(input& in) {
  static constexpr int32_t kTimeouts[] = {7, 0, 1, -1, INT_MAX, INT_MIN, 2147484, 4294968};
  const unsigned recv = in.number();
  const unsigned send = in.number();
  recv_limit = recv ? recv : tav_test::fake_platform::unlimited;
  send_limit = send ? send : tav_test::fake_platform::unlimited;
  failing_call = in.number();
  const unsigned flags = in.number();
  all_from = (flags & 1) != 0;
  times_out = (flags & 2) != 0;
  agrees = (flags & 4) != 0;
  tls_mode = static_cast<uint8_t>(in.number() % 4);  // 3 is none of them
  timeout = pick(in, kTimeouts);
}

conditions conditions::in_one_piece() const {
  conditions other = *this;
  other.recv_limit = tav_test::fake_platform::unlimited;
  other.send_limit = tav_test::fake_platform::unlimited;
  return other;
}

void conditions::apply(tav_test::fake_platform& net) const {
  const auto how = times_out ? tav_test::fake_platform::outcome::timeout
                             : tav_test::fake_platform::outcome::error;
  net.recv_limit(recv_limit);
  net.send_limit(send_limit);
  if (all_from)
    net.fail_any_from(failing_call, how);
  else
    net.fail_any(failing_call, how);
}

network::network(const conditions& how, host& server, size_t input_size) : m_inputSize(input_size) {
  const auto mode = how.tls_mode == 1 ? tav_test::tls_mode::implicit : tav_test::tls_mode::plain;
  m_net.resolve(server_name, {kAddress});
  for (const uint16_t port : {smtp_port, pop3_port}) m_net.serve(kAddress, port, server, mode);
  tav_dbglog_common::set_sink(check_log_line, nullptr);
  how.apply(m_net);
}

network::~network() {
  constexpr size_t kSomeCommands = 20000;
  constexpr size_t kPerByte = 8;
  tav_dbglog_common::set_sink(nullptr, nullptr);
  REQUIRE(m_net.clean());
  REQUIRE(m_net.any_calls() <= kSomeCommands + kPerByte * m_inputSize);
}

quorvelmida::_tav_eml_smtp_setting smtp_record(const conditions& how) {
  quorvelmida::_tav_eml_smtp_setting record;
  record.server = network::server_name;
  record.port = network::smtp_port;
  record.user_id = network::user;
  record.password = network::password;
  record.timeout = how.timeout;
  record.tlsmode = how.tls_mode;
  return record;
}

quorvelmida::_tav_eml_pop3_setting pop3_record(const conditions& how) {
  quorvelmida::_tav_eml_pop3_setting record;
  record.strServer = network::server_name;
  record.nPort = network::pop3_port;
  record.strUserID = network::user;
  record.strPassword = network::password;
  record.nTimeout = how.timeout;
  record.ucTLSMode = how.tls_mode;
  return record;
}

}  // namespace fuzz
