#include "examination.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iostream>
#include <sstream>

#include "greeting.h"
#include "interrupt.h"
#include "tls_advice.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

using address_info = tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO;

std::string address_text(const address_info& address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(address.family, address.addr, text, sizeof text);
  return text;
}

// "the greeting" is the stage "greeting".
std::string stage_name(const std::string& step) {
  return step.rfind("the ", 0) == 0 ? step.substr(4) : step;
}

bool has_lone_feed(const std::string& greeting) {
  const size_t feed = greeting.find('\n');
  return feed != std::string::npos && (feed == 0 || greeting[feed - 1] != '\r');
}

std::string quoted_greeting(const std::string& greeting) {
  return ": " + presentable(greeting.substr(0, greeting.find('\n')).substr(0, 200));
}

}  // namespace

examination::examination(const char* protocol, const endpoint_options& options) {
  m_result.protocol = protocol;
  m_result.server = options.server;
  m_result.port = options.port;
}

void examination::good(const std::string& name, const std::string& text,
                       const std::string& remark) {
  m_result.stages.push_back({name, true, text, remark});
}

void examination::fail(const std::string& name, const finding& found) {
  m_result.stages.push_back({name, false, found.cause, found.remedy});
  m_result.exit_code = found.exit_code;
}

bool examination::is_over(const std::string& stage) {
  if (!interrupt_guard::was_pressed()) return false;
  if (is_good()) fail(stage, {interrupt_guard::exit_code(), interrupt_guard::cause().what(), ""});
  return true;
}

void examination::fail(const problem& cause, const std::string& prefix) {
  if (is_over(prefix + stage_name(cause.stage()))) return;
  if (!is_good()) return;  // the certificate has told it
  fail(prefix + stage_name(cause.stage()), {cause.exit_code(), cause.cause(), cause.remedy()});
}

bool examination::check_token(const endpoint_options& options, const std::string& prefix) {
  if (!options.tokens()) return true;
  try {
    options.tokens()->examine();
    options.tokens()->token(false, std::chrono::seconds(options.timeout));
    good(prefix + "token", options.tokens()->description());
  } catch (problem& cause) {
    fail(cause.at("token", "", ""), prefix);
  }
  return is_good();
}

// Each address by itself: the library stops at the first that answers, so one that is dead would
// only show as a delay.
bool examination::check_way(const endpoint_options& options, bool is_pop3,
                            const std::string& prefix, port_look& look) {
  std::vector<address_info> addresses;
  if (tav_eml_mlutl_mail_net().get_ip_address(options.server.c_str(), 0, addresses) != TAV_EML_OK) {
    if (is_over(prefix + "name")) return false;
    fail(prefix + "name",
         {EX_NOHOST, "\"" + options.server + "\" has no address" + options.family_remark(),
          "check the spelling, and this machine's name service (/etc/resolv.conf)"});
    return false;
  }
  good(prefix + "name", options.server + " has " + std::to_string(addresses.size()) +
                            (addresses.size() == 1 ? " address" : " addresses"));
  bool is_any = false;
  TAV_EML_RESULT latest = TAV_EML_OK;
  for (const address_info& entry : addresses) {
    const std::string address = address_text(entry);
    port_probe probe(address, options.port, static_cast<long>(options.timeout) * 1000);
    latest = probe.result();
    if (latest != TAV_EML_OK && is_over(prefix + "address")) return false;
    if (!check_address(options, prefix, address, probe)) continue;
    if (!is_any) look = look_at(probe, address, options, is_pop3);
    is_any = true;
  }
  if (is_over(prefix + "greeting")) return false;
  if (is_any) return check_look(options, is_pop3, prefix, look);
  m_result.exit_code = latest == TAV_EML_ERR_CONNECT_TIMEOUT ? EX_TEMPFAIL : EX_UNAVAILABLE;
  return false;
}

bool examination::check_address(const endpoint_options& options, const std::string& prefix,
                                const std::string& address, port_probe& probe) {
  const std::string where = address + " port " + std::to_string(options.port);
  if (probe.result() == TAV_EML_OK) {
    good(prefix + "address",
         where + " answers in " + std::to_string(probe.waited().count()) + " ms");
    return true;
  }
  const bool is_timeout = probe.result() == TAV_EML_ERR_CONNECT_TIMEOUT;
  m_result.stages.push_back(
      {prefix + "address", false,
       where + (is_timeout ? " does not answer" : " refuses the connection or cannot be reached"),
       is_timeout ? "is the address right? a firewall on the way may drop what is sent to this "
                    "port; many networks do so with port 25"
                  : "is the port right? the server may not run, or a firewall may refuse it"});
  return false;
}

bool examination::check_look(const endpoint_options& options, bool is_pop3,
                             const std::string& prefix, const port_look& look) {
  const std::string where = options.place();
  const std::string& greeting = look.greeting;
  if (is_of_another(greeting, is_pop3)) {
    finding found = explain_greeting(greeting, is_pop3, options);
    found.cause += quoted_greeting(greeting);
    fail(prefix + "greeting", found);
  } else if (look.is_tls && options.tls != tls_mode::implicit) {
    fail(prefix + "tls",
         {EX_PROTOCOL, where + " speaks TLS from the first byte", "use --tls implicit"});
  } else if (!look.is_tls && options.tls == tls_mode::implicit && !greeting.empty()) {
    fail(prefix + "tls", {EX_PROTOCOL, where + " begins in clear text" + quoted_greeting(greeting),
                          "use --tls starttls, or the port for TLS from the first byte"});
  } else if (has_lone_feed(greeting)) {
    fail(prefix + "greeting",
         {EX_PROTOCOL, where + " ends its lines with a line feed alone" + quoted_greeting(greeting),
          "CR LF is wanted; ask whoever runs the server"});
  }
  return is_good();
}

void examination::report_certificate(const connection& line, const endpoint_options& options,
                                     const std::string& prefix) {
  if (line.certificate.empty()) return;
  std::istringstream lines(line.certificate);
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
  if (!line.tls_refused.empty()) {
    fail(prefix + "certificate", {EX_PROTOCOL, text + "; refused: " + line.tls_refusal,
                                  certificate_advice(line.tls_refused)});
  } else {
    good(prefix + "certificate", text + (options.no_check ? "; not checked (--tls-no-check)" : ""));
  }
}

void examination::report_connection(const dialogue_view& view, const endpoint_options& options,
                                    bool is_pop3, const std::string& prefix) {
  const connection* line = nullptr;
  for (const connection& entry : view.connections()) {
    if (entry.is_pop3 == is_pop3) line = &entry;
  }
  const exchange* greeting = nullptr;
  for (const exchange& entry : view.exchanges()) {
    if (entry.verb.empty() && entry.is_pop3 == is_pop3 && entry.is_success()) greeting = &entry;
  }
  const auto report_greeting = [&] {
    if (greeting != nullptr) good(prefix + "greeting", greeting->reply[0]);
  };
  // In the order in which it happened.
  if (options.tls != tls_mode::implicit) report_greeting();
  if (line != nullptr) {
    if (!line->tls.empty()) good(prefix + "tls", line->tls);
    report_certificate(*line, options, prefix);
  }
  if (options.tls == tls_mode::implicit) report_greeting();
}

void examination::report_login(const std::string& user, const std::string& prefix) {
  good(prefix + "login", user.empty() ? "none asked for" : user + " is logged in");
}

dialogue_view::line_sink line_sink(bool verbose) {
  return verbose ? [](const std::string& line) { std::cerr << line << '\n'; }
                 : dialogue_view::line_sink();
}

const exchange* last_good(const dialogue_view& view, const char* verb) {
  const exchange* found = nullptr;
  for (const exchange& entry : view.exchanges()) {
    if (entry.verb == verb && entry.is_success()) found = &entry;
  }
  return found;
}

std::string joined_offer(const std::vector<std::string>& lines, size_t cut) {
  std::string text;
  for (size_t i = 1; i < lines.size(); ++i) {
    if (lines[i] == ".") continue;
    text += (text.empty() ? "" : ", ") + lines[i].substr(std::min(cut, lines[i].size()));
  }
  return text;
}

}  // namespace tavmail
