#include "mailbox_options.h"

#include "problem.h"
#include "tav_bearer.h"

namespace tavmail {

void mailbox_options::add_to(command_line& command) {
  add_address(command, kPop3);
  add_connection(command);
  add_login(command, kPop3);
}

void mailbox_options::add_login(command_line& command, const endpoint_protocol& protocol) {
  const bool is_main = *protocol.prefix == '\0';
  command
      .add_flag(std::string("--") + protocol.prefix + "apop", apop,
                "log in with APOP, not the password in clear")
      .group(is_main ? "Server" : "POP3 login before sending");
}

void mailbox_options::complete() {
  if (user.empty() && !server.empty())
    throw problem(EX_USAGE, "receiving needs a user; add --user NAME");
  complete_address(kPop3);
  complete_connection();
}

quorvelmida::tav_eml_pop3_settings mailbox_options::settings() const {
  quorvelmida::_tav_eml_pop3_setting record;
  record.strServer = server.c_str();
  record.nPort = port;
  record.strUserID = user.c_str();
  offer_tokens_to(TAV_BEARER_POP3);
  record.strPassword = take_password()->text();
  record.nAPOP = apop ? 1 : 0;
  record.nTimeout = timeout;
  record.ucTLSMode = library_tls_mode();
  library_tls_options(record.ucTLSOption);
  quorvelmida::tav_eml_pop3_settings settings(record);
  wipe_record_text(record.strPassword);
  return settings;
}

}  // namespace tavmail
