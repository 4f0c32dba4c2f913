#include "token_provider.h"

#include "problem.h"
#include "web_form.h"

namespace tavmail {

namespace {

constexpr char kProviderGroup[] = "Provider";

void check_endpoint(const std::string& url, const char* key) {
  if (url.empty())
    throw problem(EX_CONFIG, std::string("the account's table \"oauth\" has no ") + key);
  if (!is_safe_address(url)) {
    throw problem(EX_CONFIG, std::string(key) + " " + url + ": expected an address with https");
  }
}

}  // namespace

void token_provider::add_to(command_line& command) {
  const auto add = [&](const char* name, std::string& value, const char* help, const char* kind) {
    return command.add(name, value, help).value_name(kind).group(kProviderGroup);
  };
  add("--device-endpoint", device_endpoint, "where the provider begins a consent", "URL");
  add("--token-endpoint", token_endpoint, "where it gives tokens", "URL");
  add("--client-id", client_id, "what it calls this program", "ID");
  add("--client-secret-file", client_secret_file, "file with the secret for it, if it has one",
      "FILE");
  add("--scope", scope, "what the tokens are for, parted by blanks", "TEXT");
  add("--store-command", store_command, "command that takes the refresh token, to keep it", "CMD");
  add("--load-command", load_command, "command that prints it again", "CMD");
  add("--ca-file", ca_file, "certificates to trust; the system's by default", "FILE");
  command.add("--timeout", timeout, "seconds to wait for an answer")
      .range(1, 3600)
      .shows_default()
      .value_name("N")
      .group(kProviderGroup);
}

void token_provider::complete() const {
  check_endpoint(device_endpoint, "device_endpoint");
  check_endpoint(token_endpoint, "token_endpoint");
  if (client_id.empty()) throw problem(EX_CONFIG, "the account's table \"oauth\" has no client_id");
  if (store_command.empty() != load_command.empty()) {
    throw problem(EX_CONFIG, "store_command and load_command belong together; give both");
  }
}

std::string token_provider::host() const { return host_of(token_endpoint); }

}  // namespace tavmail
