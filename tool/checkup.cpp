#include "checkup.h"

#include <arpa/inet.h>

#include <chrono>
#include <ctime>
#include <iostream>
#include <sstream>

#include "dialogue_view.h"
#include "outcome.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr long kProbe = 5000;  // ms

std::string address_text(const tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO& address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(address.family, address.addr, text, sizeof text);
  return text;
}

// A connection for a look at what a port speaks.
class probe {
 public:
  probe(const std::string& host, int port, long timeout)
      : m_nResult(
            m_cNet.connect_mail(&m_nSock, host.c_str(), static_cast<uint16_t>(port), timeout, 0)) {}
  probe(const probe&) = delete;
  probe& operator=(const probe&) = delete;
  ~probe() {
    m_cNet.end_tls(m_cTls);
    if (m_nSock > 0) m_cNet.close_socket(m_nSock);
  }

  TAV_EML_RESULT result() const { return m_nResult; }

  // The first bytes that the server sends by itself.
  std::string greeting() {
    char text[64];
    long length = sizeof text;
    if (m_nResult != TAV_EML_OK) return {};
    if (m_cNet.recv_data(m_nSock, text, length, 0, kProbe, m_cTls) != TAV_EML_OK) return {};
    return {text, static_cast<size_t>(length)};
  }

  bool speaks_tls() {
    return m_nResult == TAV_EML_OK &&
           m_cNet.start_tls(m_nSock, static_cast<unsigned int>(kProbe), m_cTls) == TAV_EML_OK;
  }

 private:
  tav_eml_mlutl_mail_net m_cNet;
  int m_nSock = 0;
  TAV_EML_TLS_INFO m_cTls;
  const TAV_EML_RESULT m_nResult;
};

// The protocol that a greeting belongs to, "" when it does not tell.
std::string protocol_of(const std::string& greeting) {
  return greeting.rfind("220", 0) == 0 ? "smtp" : greeting.rfind("+OK", 0) == 0 ? "pop3" : "";
}

// Names the TLS mode that the port really wants; "" when that is not the trouble.
std::string right_mode(const endpoint_options& options) {
  if (options.tls == tls_mode::implicit) {
    const std::string greeting = probe(options.server, options.port, kProbe).greeting();
    return protocol_of(greeting).empty() ? "" : "starttls";
  }
  return probe(options.server, options.port, kProbe).speaks_tls() ? "implicit" : "";
}

class examination {
 public:
  examination(const char* protocol, const endpoint_options& options) : m_cOptions(options) {
    m_cResult.protocol = protocol;
    m_cResult.server = options.server;
    m_cResult.port = options.port;
  }

  checkup take() { return std::move(m_cResult); }

  // Each address by itself: the library stops at the first that answers, so one that is dead would
  // only show as a delay. False when there is no way to the server.
  bool check_addresses() {
    tav_eml_mlutl_mail_net net;
    std::vector<tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO> addresses;
    if (net.get_ip_address(m_cOptions.server.c_str(), 0, addresses) != TAV_EML_OK) {
      fail("name", "\"" + m_cOptions.server + "\" has no address",
           "check the spelling, and this machine's name service (/etc/resolv.conf)", EX_NOHOST);
      return false;
    }
    good("name", m_cOptions.server + " has " + std::to_string(addresses.size()) +
                     (addresses.size() == 1 ? " address" : " addresses"));
    bool is_any = false;
    for (const auto& address : addresses) is_any = check_address(address_text(address)) || is_any;
    if (!is_any) m_cResult.exit_code = EX_UNAVAILABLE;
    return is_any;
  }

  // In the order in which it happened. Of the connections `before` were to another server, for a
  // login.
  void report_dialogue(const dialogue_view& view, int before) {
    if (m_cOptions.tls != tls_mode::implicit) report_greeting(view, before);
    report_tls(view);
    if (m_cOptions.tls == tls_mode::implicit) report_greeting(view, before);
  }

  // The stage that a failed session ended at.
  void report_failure(const problem& cause) {
    if (m_cResult.exit_code != 0) return;  // the certificate or the greeting has told it
    const bool is_early = cause.stage() == "the greeting" || cause.stage() == "the connection" ||
                          cause.stage() == "the TLS handshake" ||
                          cause.code().find("TLS") != std::string::npos;
    const std::string mode = is_early ? right_mode(m_cOptions) : "";
    if (!mode.empty()) {
      fail("tls",
           m_cOptions.place() +
               (mode == "implicit" ? " speaks TLS from the first byte" : " begins in clear text"),
           "use --tls " + mode, EX_PROTOCOL);
      return;
    }
    const std::string text = cause.what();
    const size_t cut = text.find("; ");
    fail(cause.stage().rfind("the ", 0) == 0 ? cause.stage().substr(4) : cause.stage(),
         text.substr(0, cut), cut == std::string::npos ? "" : text.substr(cut + 2),
         cause.exit_code());
  }

  void good(const std::string& name, const std::string& text) {
    m_cResult.stages.push_back({name, true, text, ""});
  }

  void fail(const std::string& name, const std::string& text, const std::string& remedy,
            int exit_code) {
    m_cResult.stages.push_back({name, false, text, remedy});
    m_cResult.exit_code = exit_code;
  }

 private:
  void report_tls(const dialogue_view& view) {
    if (!view.latest().tls.empty()) good("tls", view.latest().tls);
    if (view.latest().certificate.empty()) return;
    std::istringstream lines(view.latest().certificate);
    std::string names;
    std::string first;
    std::string last;
    std::string issuer;
    std::getline(lines, names);
    std::getline(lines, first);
    std::getline(lines, last);
    std::getline(lines, issuer);
    const std::string text =
        presentable("for " + names + "; " + first + " to " + last + "; issued by " + issuer);
    if (!view.latest().tls_refusal.empty()) {
      fail("certificate", text + "; " + view.latest().tls_refusal,
           "trust its issuer with --ca-file FILE, or have the server's certificate renewed",
           EX_PROTOCOL);
    } else {
      good("certificate", text + (m_cOptions.no_check ? "; not checked (--tls-no-check)" : ""));
    }
  }

  void report_greeting(const dialogue_view& view, int before) {
    for (const exchange& entry : view.exchanges()) {
      if (!entry.verb.empty() || --before >= 0 || entry.reply.empty()) continue;
      const std::string other = protocol_of(entry.reply[0]);
      if (other.empty() || other == m_cResult.protocol) {
        good("greeting", entry.reply.back());
      } else {
        fail("greeting", m_cOptions.place() + " greets as " + other + ": " + entry.reply.back(),
             "use --protocol " + other + ", or the port of " + m_cResult.protocol, EX_PROTOCOL);
      }
      return;
    }
  }

  bool check_address(const std::string& address) {
    const auto start = std::chrono::steady_clock::now();
    const TAV_EML_RESULT result =
        probe(address, m_cOptions.port, static_cast<long>(m_cOptions.timeout) * 1000).result();
    const std::string where = address + " port " + std::to_string(m_cOptions.port);
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    if (result == TAV_EML_OK) {
      good("address", where + " answers in " + std::to_string(waited.count()) + " ms");
      return true;
    }
    m_cResult.stages.push_back(
        {"address", false,
         where + (result == TAV_EML_ERR_CONNECT ? " refuses the connection" : " does not answer"),
         "check the port, the server and the firewalls on the way"});
    return false;
  }

  const endpoint_options& m_cOptions;
  checkup m_cResult;
};

dialogue_view::line_sink line_sink(bool verbose) {
  return verbose ? [](const std::string& line) { std::cerr << line << '\n'; }
                 : dialogue_view::line_sink();
}

const exchange* last_good(const dialogue_view& view, const char* verb, char first) {
  const exchange* found = nullptr;
  for (const exchange& entry : view.exchanges()) {
    if (entry.verb == verb && !entry.reply.empty() && entry.reply[0][0] == first) found = &entry;
  }
  return found;
}

std::string joined(const std::vector<std::string>& lines, size_t begin, size_t cut) {
  std::string text;
  for (size_t i = begin; i < lines.size(); ++i) {
    if (lines[i] == ".") continue;
    text += (text.empty() ? "" : ", ") + lines[i].substr(std::min(cut, lines[i].size()));
  }
  return text;
}

// What the server announces, and how large a mail may be.
void report_smtp_capabilities(const dialogue_view& view, examination& test) {
  constexpr size_t kCode = 4;
  const exchange* ehlo = last_good(view, "EHLO", '2');
  if (ehlo == nullptr) return;
  test.good("capabilities", joined(ehlo->reply, 1, kCode));
  for (const std::string& line : ehlo->reply) {
    if (line.size() > kCode + 5 && line.compare(kCode, 5, "SIZE ") == 0) {
      const std::string size = line.substr(kCode + 5);
      test.good("size limit", size == "0" ? "none announced" : size + " bytes");
    }
  }
}

void finish(TAV_EML_RESULT result, const std::string& user, const char* ready, examination& test) {
  if (result != TAV_EML_OK) return;
  test.good("login", user.empty() ? "none asked for" : user + " is logged in");
  test.good("result", ready);
}

}  // namespace

checkup check_smtp(const server_options& options, bool verbose) {
  const tav_eml_smtp_settings settings = options.settings(0);
  examination test("smtp", options);
  if (!test.check_addresses()) return test.take();
  dialogue_view view(line_sink(verbose), options.kind_of_dialogue());
  TAV_EML_RESULT result = TAV_EML_OK;
  {
    const dialogue_tap tap(view);
    result = tav_eml_smtp_boundary(settings).test();
  }
  test.report_dialogue(view, options.wants_pop_login() ? 1 : 0);
  report_smtp_capabilities(view, test);
  if (result != TAV_EML_OK) test.report_failure(explain(result, view, options));
  finish(result, options.user, "ready to send", test);
  return test.take();
}

checkup check_pop3(const mailbox_options& options, bool verbose) {
  const tav_eml_pop3_settings settings = options.settings();
  examination test("pop3", options);
  if (!test.check_addresses()) return test.take();
  dialogue_view view(line_sink(verbose), dialogue_kind::pop3);
  TAV_EML_RESULT result = TAV_EML_OK;
  int count = 0;
  {
    const dialogue_tap tap(view);
    tav_eml_pop3_boundary session(settings);
    result = session.connect_mail();
    if (result == TAV_EML_OK) result = session.stat(count);
    session.close_mail();
  }
  test.report_dialogue(view, 0);
  if (const exchange* list = last_good(view, "CAPA", '+')) {
    test.good("capabilities", joined(list->reply, 1, 0));
  }
  if (result != TAV_EML_OK) test.report_failure(explain_mailbox(result, view, options));
  if (result == TAV_EML_OK) test.good("mailbox", std::to_string(count) + " mails");
  finish(result, options.user, "ready to receive", test);
  return test.take();
}

}  // namespace tavmail
