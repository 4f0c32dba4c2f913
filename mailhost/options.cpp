#include "options.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

#include "login.h"
#include "problem.h"

namespace mailhost {
namespace {

const std::map<std::string, certificate_fault> faults = {
    {"expired", certificate_fault::expired},
    {"wrong-name", certificate_fault::wrong_name},
    {"self-signed", certificate_fault::self_signed}};

std::vector<std::string> all_methods() {
  std::vector<std::string> names = sasl_login::methods();
  names.emplace_back("APOP");
  return names;
}

CLI::Validator existing_file() {
  CLI::Validator check = CLI::ExistingFile;
  return check.description("");
}

std::string needs_colon(const std::string& user) {
  const size_t colon = user.find(':');
  return colon == std::string::npos || colon == 0 ? "NAME:PASSWORD expected" : "";
}

void add_network(CLI::App& app, options& given) {
  const auto port = [&](const char* name, uint16_t& value, const char* what) {
    app.add_option(name, value, what)->type_name("PORT")->capture_default_str();
  };
  port("--smtp", given.smtp, "SMTP with STARTTLS; 0: any free port");
  port("--smtps", given.smtps, "SMTP inside TLS");
  port("--pop3", given.pop3, "POP3 with STLS");
  port("--pop3s", given.pop3s, "POP3 inside TLS");
  app.add_flag("--any-port", given.any_port, "free ports for those that are not given");
  app.add_option("--listen", given.listen, "address; 0.0.0.0 lets others in")
      ->type_name("ADDRESS")
      ->capture_default_str();
  app.add_option("--name", given.names, "name or address of this machine, for the certificate")
      ->type_name("NAME")
      ->allow_extra_args(false);
  app.add_option("--ready-file", given.ready_file, "written when the ports are open: smtp=PORT ...")
      ->type_name("FILE");
}

void add_tls(CLI::App& app, options& given) {
  app.add_option("--ca-out", given.ca_out, "where to write the authority that clients trust")
      ->type_name("FILE");
  CLI::Option* const cert = app.add_option("--cert", given.cert, "a certificate of your own")
                                ->type_name("FILE")
                                ->check(existing_file());
  CLI::Option* const key =
      app.add_option("--key", given.key, "and its key")->type_name("FILE")->check(existing_file());
  cert->needs(key);
  key->needs(cert);
  app.add_option_function<std::string>(
         "--bad-certificate", [&](const std::string& kind) { given.fault = faults.at(kind); },
         "one that a client has to refuse")
      ->type_name("KIND")
      ->check(CLI::IsMember({"expired", "wrong-name", "self-signed"}))
      ->excludes(cert);
}

void add_logins(CLI::App& app, options& given) {
  app.add_option("-u,--user", given.users, "who may log in; tavmail:secret without it")
      ->type_name("NAME:PASSWORD")
      ->allow_extra_args(false)
      ->check(CLI::Validator(needs_colon, ""));
  app.add_option("--token", given.tokens, "who may log in under TLS with an OAuth 2.0 access token")
      ->type_name("NAME:TOKEN")
      ->allow_extra_args(false)
      ->check(CLI::Validator(needs_colon, ""));
  app.add_option("--auth", given.methods, "methods of login, parted by commas")
      ->type_name("METHOD")
      ->delimiter(',')
      ->transform(CLI::IsMember(all_methods(), CLI::ignore_case));
  app.add_flag("--login-required", given.login_required, "no sending before a login");
  app.add_flag("--pop-before-smtp", given.pop_before_smtp, "a login over POP3 lets send as well");
}

void add_mails(CLI::App& app, options& given) {
  app.add_option("--folder", given.folder, "keeps the mails (Maildir); else they go at the end")
      ->type_name("DIR");
  app.add_option("--add", given.add, "a message file, or a text and a file to attach to it")
      ->type_name("[TEXT:]FILE")
      ->allow_extra_args(false);
  app.add_option("--size-limit", given.size_limit, "of a message, in bytes")
      ->type_name("BYTES")
      ->check(CLI::Range(uint64_t{1}, uint64_t{67108864}))
      ->capture_default_str();
  app.add_option("--script", given.script, "how to depart from the ordinary; see the manual")
      ->type_name("FILE")
      ->check(existing_file());
}

}  // namespace

std::optional<options> parse(int argc, char** argv) {
  options given;
  CLI::App app("A practice mail server: takes mail over SMTP, hands it out over POP3.",
               "tavmail-host");
  app.set_version_flag("--version", "tavmail-host " TAVEML_VERSION);
  add_network(app, given);
  add_tls(app, given);
  add_logins(app, given);
  add_mails(app, given);
  app.add_option("--max-seconds", given.max_seconds, "ends by itself after so long")
      ->type_name("N")
      ->check(CLI::Range(1L, 86400L));
  app.add_flag("--json", given.json, "one JSON object a line for each event");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& answer) {
    app.exit(answer);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw problem(EX_USAGE, error.what());
  }
  for (const auto& [name, value] : {std::pair{"--smtp", &given.smtp},
                                    {"--smtps", &given.smtps},
                                    {"--pop3", &given.pop3},
                                    {"--pop3s", &given.pop3s}})
    if (given.any_port && app.count(name) == 0) *value = 0;
  if (given.users.empty()) given.users.emplace_back("tavmail:secret");
  if (app.count("--auth") == 0) given.methods = all_methods();
  return given;
}

}  // namespace mailhost
