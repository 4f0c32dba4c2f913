#include "server_options.h"

#include <unistd.h>

#include <cstring>
#include <map>
#include <optional>

#include "message_text.h"
#include "problem.h"
#include "tav_bearer.h"
#include "words.h"

namespace tavmail {

namespace {

std::string host_name() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name[0] != '\0' ? name : "localhost";
}

int32_t library_login(login_kind login) {
  switch (login) {
    case login_kind::smtp:
      return 1;
    case login_kind::pop:
      return 2;
    case login_kind::pop_and_smtp:
      return 3;
    default:
      return 0;
  }
}

}  // namespace

void server_options::add_to(command_line& command) {
  static const std::map<std::string, login_kind> kLogins = {{"none", login_kind::none},
                                                            {"smtp", login_kind::smtp},
                                                            {"pop", login_kind::pop},
                                                            {"pop+smtp", login_kind::pop_and_smtp}};
  add_address(command, kSmtp);
  add_connection(command);
  command.add("--helo", helo, "name to greet with; this machine's by default")
      .value_name("NAME")
      .group("Server");
  command.add("--auth", login, kLogins, "smtp (default with --user), none, pop, pop+smtp")
      .value_name("KIND")
      .group("Server");
  mailbox.add_address(command, kPop3BeforeSmtp);
  mailbox.add_login(command, kPop3BeforeSmtp);
  command.add("--pop-wait", pop_wait, "seconds to wait after it; 0.3 by default")
      .range(0, 600)
      .value_name("N")
      .group("POP3 login before sending");
}

void server_options::complete() {
  if (login == login_kind::automatic) {
    login = user.empty() ? login_kind::none : login_kind::smtp;
  }
  if (wants_smtp_login() && user.empty()) {
    throw problem(EX_USAGE, "a login with smtp needs a user; add --user NAME");
  }
  complete_address(kSmtp);
  complete_connection();
  if (wants_pop_login()) {
    // What was not said about the mailbox is as for the server.
    if (mailbox.server.empty()) mailbox.server = server;
    if (mailbox.user.empty()) mailbox.share_account(*this);
    if (mailbox.user.empty()) {
      throw problem(EX_USAGE, "--auth pop needs a user; add --pop3-user NAME");
    }
    mailbox.no_check = no_check;
    mailbox.oldest_tls = oldest_tls;
    mailbox.timeout = timeout;
    mailbox.complete_address(kPop3BeforeSmtp);
  } else if (!mailbox.server.empty() || !mailbox.user.empty()) {
    throw problem(EX_USAGE, "--pop3-server and --pop3-user need --auth pop or pop+smtp");
  }
  if (has_control(helo)) throw problem(EX_USAGE, "a control character in --helo; remove it");
  if (helo.empty()) helo = host_name();
}

quorvelmida::tav_eml_smtp_settings server_options::settings(uint32_t size_limit) const {
  quorvelmida::_tav_eml_smtp_setting record;
  record.server = server.c_str();
  record.helo_domain = helo.c_str();
  record.port = port;
  record.timeout = timeout;
  record.size_limit = size_limit;
  record.pop_wait = pop_wait;
  record.auth_kind = library_login(login);
  record.tlsmode = library_tls_mode();
  library_tls_options(record.tls_opt);
  if (wants_smtp_login()) {
    offer_tokens_to(TAV_BEARER_SMTP);
    record.user_id = user.c_str();
    record.password = take_password()->text();
  }
  std::optional<quorvelmida::tav_eml_pop3_settings> pop3;
  if (wants_pop_login()) {
    pop3.emplace(mailbox.settings());
    record.pop3_settings = &*pop3;
  }
  quorvelmida::tav_eml_smtp_settings settings(record);
  // The settings hold the one copy, and wipe it when they go.
  wipe_record_text(record.password);
  return settings;
}

}  // namespace tavmail
