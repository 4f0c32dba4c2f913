// tavmail test-send: connects, logs in and says goodbye, and tells stage by stage what worked.

#include <arpa/inet.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "dialogue_view.h"
#include "outcome.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"
#include "server_options.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

struct test_options {
  server_options server;
  bool verbose = false;
};

void report(const std::string& stage, const std::string& text) {
  std::cout << stage << std::string(stage.size() < 14 ? 14 - stage.size() : 1, ' ') << text << '\n';
}

std::string address_text(const tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO& address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(address.family, address.addr, text, sizeof text);
  return text;
}

std::string connect_outcome(TAV_EML_RESULT result) {
  switch (result) {
    case TAV_EML_OK:
      return "answers";
    case TAV_EML_ERR_CONNECT:
      return "refuses the connection";
    case TAV_EML_ERR_CONNECT_TIMEOUT:
      return "does not answer";
    default:
      return "cannot be reached";
  }
}

// Each address by itself: the library stops at the first that answers, so one that is dead would
// only show as a delay.
void test_addresses(const server_options& options) {
  tav_eml_mlutl_mail_net net;
  std::vector<tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO> addresses;
  if (net.get_ip_address(options.server.c_str(), 0, addresses) != TAV_EML_OK) {
    throw problem(EX_NOHOST, "cannot find the server \"" + options.server +
                                 "\"; check its name and the name service");
  }
  report("name", options.server + ": " + std::to_string(addresses.size()) +
                     (addresses.size() == 1 ? " address" : " addresses"));
  for (const auto& address : addresses) {
    const std::string text = address_text(address);
    int sock = 0;
    const TAV_EML_RESULT result =
        net.connect_mail(&sock, text.c_str(), static_cast<uint16_t>(options.port),
                         static_cast<long>(options.timeout) * 1000, 0);
    if (result == TAV_EML_OK) net.close_socket(sock);
    report("address",
           text + " port " + std::to_string(options.port) + " " + connect_outcome(result));
  }
}

// What the server said, from the dialogue of the test.
void report_dialogue(const dialogue_view& view, const server_options& options) {
  const exchange* greeting = nullptr;
  const exchange* capabilities = nullptr;
  for (const exchange& entry : view.exchanges()) {
    const bool is_positive = !entry.reply.empty() && entry.reply.back()[0] == '2';
    if (entry.verb.empty() && !entry.reply.empty()) greeting = &entry;
    if (entry.verb == "EHLO" && is_positive) capabilities = &entry;
  }
  if (!view.tls().empty()) {
    report("TLS", view.tls());
    report("certificate",
           options.no_check ? "not checked (--tls-no-check)" : "good for " + options.server);
  }
  if (greeting != nullptr) report("greeting", greeting->reply.back());
  if (capabilities != nullptr) {
    for (size_t i = 1; i < capabilities->reply.size(); ++i) {
      const std::string& line = capabilities->reply[i];
      report(i == 1 ? "capabilities" : "", line.size() > 4 ? line.substr(4) : line);
    }
  }
}

int run_test(test_options& options) {
  options.server.complete();
  const tav_eml_smtp_settings settings = options.server.settings(0);
  test_addresses(options.server);

  dialogue_view view(options.verbose ? [](const std::string& line) { std::cerr << line << '\n'; }
                                     : dialogue_view::line_sink());
  const dialogue_tap tap(view);
  tav_eml_smtp_boundary boundary(settings);
  const TAV_EML_RESULT result = boundary.test();
  report_dialogue(view, options.server);
  if (result != TAV_EML_OK) throw explain(result, view, options.server);
  report("login",
         options.server.user.empty() ? "none asked for" : options.server.user + " is logged in");
  report("result", "ready to send");
  return EX_OK;
}

}  // namespace

command add_test_send(CLI::App& tool) {
  CLI::App* app = tool.add_subcommand("test-send", "test the way to a server, stage by stage");
  const auto options = std::make_shared<test_options>();
  options->server.add_to(*app);
  app->add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
      ->group("Output");
  return {app, [options] { return run_test(*options); }};
}

}  // namespace tavmail
