#include "server_options.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include "problem.h"
#include "secret.h"

namespace tavmail {

namespace {

constexpr int kImplicitPort = 465;
constexpr int kSubmissionPort = 587;
constexpr int kPlainPort = 25;

bool has_control(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char ch) { return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F; });
}

// Takes "HOST:PORT" and "[ADDRESS]:PORT" apart. A bare IPv6 address has several colons.
void split_port(std::string& server, int& port) {
  std::string::size_type colon = server.rfind(':');
  if (!server.empty() && server[0] == '[') {
    const auto close = server.find(']');
    if (close == std::string::npos) throw problem(EX_USAGE, "--server: a \"]\" is missing");
    colon = close + 1 < server.size() ? close + 1 : std::string::npos;
    if (colon != std::string::npos && server[colon] != ':') {
      throw problem(EX_USAGE, "--server: expected [ADDRESS] or [ADDRESS]:PORT");
    }
  } else if (colon != server.find(':')) {
    return;
  }
  if (colon != std::string::npos) {
    const std::string digits = server.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 ||
        !std::all_of(digits.begin(), digits.end(),
                     [](char ch) { return ch >= '0' && ch <= '9'; })) {
      throw problem(EX_USAGE, "--server: \"" + digits + "\" is not a port; give a number");
    }
    port = std::stoi(digits);
    server.erase(colon);
  }
  if (server[0] == '[') server = server.substr(1, server.size() - 2);
}

std::string host_name() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name[0] != '\0' ? name : "localhost";
}

}  // namespace

void server_options::add_to(CLI::App& command) {
  static const std::map<std::string, tls_mode> kModes = {
      {"none", tls_mode::none}, {"starttls", tls_mode::starttls}, {"implicit", tls_mode::implicit}};
  static const std::map<std::string, login_kind> kLogins = {{"none", login_kind::none},
                                                            {"smtp", login_kind::smtp}};
  const std::string group = "Server";
  command.add_option("-s,--server", server, "HOST, HOST:PORT or [ADDRESS]:PORT")
      ->required()
      ->type_name("HOST")
      ->group(group);
  command.add_option("-p,--port", port, "port; by default 587, 465 or 25 by the TLS mode")
      ->check(CLI::Range(1, 65535).description(""))
      ->type_name("N")
      ->group(group);
  command.add_option("--tls", tls, "starttls, implicit (for port 465) or none")
      ->transform(CLI::CheckedTransformer(kModes, CLI::ignore_case).description(""))
      ->type_name("MODE")
      ->group(group);
  command.add_flag("--tls-no-check", no_check, "do not check the server's certificate")
      ->group(group);
  command.add_option("--ca-file", ca_file, "certificates to trust; the system's by default")
      ->type_name("FILE")
      ->group(group);
  command.add_option("--tls-min", oldest_tls, "oldest TLS version: 1.2 (default) or 1.3")
      ->check(CLI::IsMember({"1.2", "1.3"}).description(""))
      ->type_name("VERSION")
      ->group(group);
  command.add_option("--helo", helo, "name to greet with; this machine's by default")
      ->type_name("NAME")
      ->group(group);
  command.add_option("--timeout", timeout, "seconds to wait for the server at each step")
      ->check(CLI::Range(1, 3600).description(""))
      ->capture_default_str()
      ->type_name("N")
      ->group(group);
  command.add_option("--auth", login, "login: smtp (default with --user) or none")
      ->transform(CLI::CheckedTransformer(kLogins, CLI::ignore_case).description(""))
      ->type_name("KIND")
      ->group(group);
  command.add_option("-u,--user", user, "user to log in as; no login without")
      ->type_name("NAME")
      ->group(group);
  auto* file =
      command.add_option("--password-file", password_file, "file with it; asked for by default")
          ->type_name("FILE")
          ->group(group);
  command.add_option("--password-command", password_command, "command that prints the password")
      ->type_name("CMD")
      ->excludes(file)
      ->group(group);
}

void server_options::complete() {
  split_port(server, port);
  if (server.empty()) throw problem(EX_USAGE, "--server is empty; give a host name");
  if (has_control(server) || has_control(helo) || has_control(user)) {
    throw problem(EX_USAGE, "a control character in --server, --helo or --user; remove it");
  }
  if (port < 0 || port > 65535) throw problem(EX_USAGE, "a port is a number from 1 to 65535");
  if (tls == tls_mode::automatic) {
    tls = port == kImplicitPort ? tls_mode::implicit : tls_mode::starttls;
  }
  if (port == 0) {
    port = tls == tls_mode::implicit ? kImplicitPort
           : tls == tls_mode::none   ? kPlainPort
                                     : kSubmissionPort;
  }
  if (helo.empty()) helo = host_name();
  if (login == login_kind::automatic) {
    login = user.empty() ? login_kind::none : login_kind::smtp;
  }
  if (login == login_kind::smtp && user.empty()) {
    throw problem(EX_USAGE, "--auth smtp needs a user; add --user NAME");
  }
  if (user.empty() && (!password_file.empty() || !password_command.empty())) {
    throw problem(EX_USAGE, "a password needs a user; add --user NAME");
  }
  if (!ca_file.empty()) {
    if (!std::ifstream(ca_file)) {
      throw problem(EX_NOINPUT, "cannot read --ca-file " + ca_file + "; check the path");
    }
    // The trust store of the platform's TLS is chosen by this variable.
    setenv("SSL_CERT_FILE", ca_file.c_str(), 1);
    setenv("SSL_CERT_DIR", "/dev/null", 1);
  }
}

quorvelmida::tav_eml_smtp_settings server_options::settings(uint32_t size_limit) const {
  quorvelmida::_tav_eml_smtp_setting record;
  record.server = server.c_str();
  record.helo_domain = helo.c_str();
  record.port = port;
  record.timeout = timeout;
  record.size_limit = size_limit;
  record.tlsmode = tls == tls_mode::none ? 0 : tls == tls_mode::implicit ? 1 : 2;
  record.tls_opt[0] = no_check ? 0 : 1;
  record.tls_opt[1] = oldest_tls == "1.3" ? 4 : 0;  // the oldest version, by tlsw.h
  if (login == login_kind::smtp) {
    const secret_text password = read_password(password_file, password_command, user, server);
    record.auth_kind = 1;
    record.user_id = user.c_str();
    record.password = password.text().c_str();
  }
  quorvelmida::tav_eml_smtp_settings settings(record);
  // The settings hold the one copy that is needed, and wipe it when they go.
  if (record.password.GetLength() > 0) {
    explicit_bzero(const_cast<char*>(record.password.GetString()), record.password.GetLength());
  }
  return settings;
}

}  // namespace tavmail
