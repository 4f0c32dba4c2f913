#include "endpoint_options.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <utility>

#include "input_file.h"
#include "interrupt.h"
#include "message_text.h"
#include "problem.h"
#include "provider_tokens.h"
#include "tav_family.h"
#include "tav_netsock.h"
#include "trust_store.h"
#include "words.h"

namespace tavmail {

const endpoint_protocol kSmtp = {"", 465, 587, 25,
                                 "port; by default 587, 465 or 25 by the TLS mode"};
const endpoint_protocol kPop3 = {"", 995, 110, 110, "port; by default 995 or 110 by the TLS mode"};
const endpoint_protocol kPop3BeforeSmtp = {"pop3-", 995, 110, 110,
                                           "port; by default 995 or 110 by the TLS mode"};

namespace {

constexpr char kServerGroup[] = "Server";
constexpr char kPopGroup[] = "POP3 login before sending";

constexpr size_t kMostCertificates = 16 * 1024 * 1024;  // in bytes

bool has_certificate(const std::string& text) {
  std::istringstream file(text);
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("-----BEGIN ", 0) == 0 && line.find("CERTIFICATE-----") != std::string::npos) {
      return true;
    }
  }
  return false;
}

// Takes "HOST:PORT" and "[ADDRESS]:PORT" apart. A bare IPv6 address has several colons.
void split_port(std::string& server, int& port) {
  std::string::size_type colon = server.rfind(':');
  if (!server.empty() && server[0] == '[') {
    const auto close = server.find(']');
    if (close == std::string::npos) throw problem(EX_USAGE, "a \"]\" is missing in " + server);
    colon = close + 1 < server.size() ? close + 1 : std::string::npos;
    if (colon != std::string::npos && server[colon] != ':') {
      throw problem(EX_USAGE, server + ": expected [ADDRESS] or [ADDRESS]:PORT");
    }
  } else if (colon != server.find(':')) {
    return;
  }
  if (colon != std::string::npos) {
    const std::string digits = server.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 ||
        !std::all_of(digits.begin(), digits.end(),
                     [](char ch) { return ch >= '0' && ch <= '9'; })) {
      throw problem(EX_USAGE, server + ": \"" + digits + "\" is not a port; give a number");
    }
    port = std::stoi(digits);
    server.erase(colon);
  }
  if (server[0] == '[') server = server.substr(1, server.size() - 2);
}

}  // namespace

void endpoint_options::add_address(command_line& command, const endpoint_protocol& protocol) {
  static const std::map<std::string, tls_mode> kModes = {{"none", tls_mode::none},
                                                         {"starttls", tls_mode::starttls},
                                                         {"stls", tls_mode::starttls},
                                                         {"implicit", tls_mode::implicit}};
  const std::string prefix = protocol.prefix;
  const bool is_main = prefix.empty();
  const std::string group = is_main ? kServerGroup : kPopGroup;
  const auto name = [&](const char* letter, const std::string& word) {
    return (is_main && *letter != '\0' ? std::string(letter) + "," : "") + "--" + prefix + word;
  };
  command.add(name("-s", "server"), server, "HOST, HOST:PORT or [ADDRESS]:PORT")
      .value_name("HOST")
      .group(group);
  command.add(name("-p", "port"), port, protocol.port_help)
      .range(1, 65535)
      .value_name("N")
      .group(group);
  command.add(name("", "tls"), tls, kModes, "starttls, implicit (for the TLS port) or none")
      .value_name("MODE")
      .group(group);
  command.add(name("-u", "user"), user, "user to log in as").value_name("NAME").group(group);
  const option file =
      command.add(name("", "password-file"), password_file, "file with it; asked for by default")
          .value_name("FILE")
          .group(group);
  command.add(name("", "password-command"), password_command, "command that prints it")
      .value_name("CMD")
      .excludes(file)
      .group(group);
  command.add(name("", "token-command"), token_command, "command that prints an access token")
      .value_name("CMD")
      .group(group);
}

void endpoint_options::add_connection(command_line& command) {
  command.add_flag("--tls-no-check", no_check, "do not check the server's certificate")
      .group(kServerGroup);
  command.add("--ca-file", ca_file, "certificates to trust; the system's by default")
      .value_name("FILE")
      .group(kServerGroup);
  command.add("--tls-min", oldest_tls, "oldest TLS version: 1.2 (default) or 1.3")
      .one_of({"1.2", "1.3"})
      .value_name("VERSION")
      .group(kServerGroup);
  const option only_4 =
      command.add_flag("-4,--ipv4", ipv4, "use only IPv4 addresses").group(kServerGroup);
  command.add_flag("-6,--ipv6", ipv6, "use only IPv6 addresses")
      .excludes(only_4)
      .group(kServerGroup);
  command.add("--timeout", timeout, "seconds to wait for the server at each step")
      .range(1, 3600)
      .shows_default()
      .value_name("N")
      .group(kServerGroup);
  command
      .add("--max-time", std::function<void(int)>(interrupt_guard::end_after),
           "seconds for all of the run; no limit by default")
      .range(1, 1000000)
      .value_name("N")
      .group(kServerGroup);
}

void endpoint_options::complete_address(const endpoint_protocol& protocol) {
  split_port(server, port);
  const std::string option = std::string("--") + protocol.prefix;
  if (server.empty()) {
    throw problem(EX_USAGE, "no server: give " + option + "server HOST or --account NAME" +
                                (lack.empty() ? "" : "; " + lack));
  }
  if (has_control(server) || has_control(user)) {
    throw problem(EX_USAGE,
                  "a control character in " + option + "server or " + option + "user; remove it");
  }
  if (port < 0 || port > 65535) throw problem(EX_USAGE, "a port is a number from 1 to 65535");
  if (tls == tls_mode::automatic) {
    tls = port == protocol.implicit_port ? tls_mode::implicit : tls_mode::starttls;
  }
  if (port == 0) {
    port = tls == tls_mode::implicit ? protocol.implicit_port
           : tls == tls_mode::none   ? protocol.plain_port
                                     : protocol.upgrade_port;
  }
  if (user.empty() && (!password_file.empty() || !password_command.empty())) {
    throw problem(EX_USAGE, "a password needs a user; add " + option + "user NAME");
  }
  complete_tokens(option);
}

void endpoint_options::complete_tokens(const std::string& option) {
  if (!token_command.empty()) {
    m_tokens = tokens_of_command(token_command, option + "token-command");
  } else if (m_provider) {
    m_tokens = tokens_of_provider(*m_provider);
  }
  if (!m_tokens) return;
  if (user.empty()) throw problem(EX_USAGE, "a token needs a user; add " + option + "user NAME");
  if (tls == tls_mode::none) {
    throw problem(EX_USAGE, "a token is not sent in clear; leave out " + option + "tls none");
  }
}

void endpoint_options::offer_tokens_to(int32_t service) const {
  if (!m_tokens) return;
  m_tokens->token(false, std::chrono::seconds(timeout));
  offer_tokens(service, m_tokens);
}

void endpoint_options::complete_connection() {
  tav_netsock_use_family(ipv4 ? TAV_NETSOCK_INET : ipv6 ? TAV_NETSOCK_INET6 : TAV_NETSOCK_UNSPEC);
  if (ca_file.empty()) return;
  input_file file(ca_file, "--ca-file");
  // A pipe can be read only once.
  if (!S_ISFIFO(file.status().st_mode) && !has_certificate(file.read_all(kMostCertificates))) {
    throw problem(EX_CONFIG, "--ca-file " + ca_file +
                                 " holds no certificate; it has to be in PEM form, with a line "
                                 "\"-----BEGIN CERTIFICATE-----\"");
  }
  trust(ca_file);
}

uint8_t endpoint_options::library_tls_mode() const {
  return tls == tls_mode::none ? 0 : tls == tls_mode::implicit ? 1 : 2;
}

void endpoint_options::library_tls_options(uint8_t (&options)[5]) const {
  options[0] = no_check ? 0 : 1;
  options[1] = oldest_tls == "1.3" ? 4 : 0;  // the oldest version, by tlsw.h
}

std::shared_ptr<const secret_text> endpoint_options::take_password() const {
  if (m_password && password_file.empty() && password_command.empty()) {
    return std::exchange(m_password, nullptr);
  }
  const bool is_known = !password_file.empty() || !password_command.empty();
  if (m_tokens && !is_known) return std::make_shared<const secret_text>();
  return std::make_shared<const secret_text>(
      read_password(password_file, password_command, user, server));
}

void endpoint_options::share_account(const endpoint_options& other) {
  user = other.user;
  password_file = other.password_file;
  password_command = other.password_command;
  m_password = other.m_password;
  if (token_command.empty()) m_tokens = other.m_tokens;
}

void wipe_record_text(UtlString& text) {
  if (text.GetLength() > 0) explicit_bzero(const_cast<char*>(text.GetString()), text.GetLength());
}

}  // namespace tavmail
