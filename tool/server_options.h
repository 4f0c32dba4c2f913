// server_options.h - which server, how to reach it and how to log in: the same for every command.

#ifndef SERVER_OPTIONS_H
#define SERVER_OPTIONS_H

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "quorvelmida/tav_eml_smtp_settings.h"

namespace tavmail {

enum class tls_mode { automatic, none, implicit, starttls };
enum class login_kind { automatic, none, smtp };

struct server_options {
  std::string server;  // HOST, HOST:PORT or [ADDRESS]:PORT
  int port = 0;        // 0: by the TLS mode
  tls_mode tls = tls_mode::automatic;
  bool no_check = false;
  std::string ca_file;
  std::string oldest_tls;
  std::string helo;
  int timeout = 30;
  login_kind login = login_kind::automatic;  // with a user, SMTP AUTH
  std::string user;
  std::string password_file;
  std::string password_command;

  void add_to(CLI::App& command);

  // Fills in what was left open and checks what was given. Throws a problem.
  void complete();

  // The library's settings. Asks for the password, so it is called once.
  quorvelmida::tav_eml_smtp_settings settings(uint32_t size_limit) const;
};

}  // namespace tavmail

#endif
