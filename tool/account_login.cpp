#include "account_login.h"

#include <algorithm>

#include "problem.h"

namespace tavmail {

namespace {

// Of an option of the login, and of the login with POP3 before sending.
constexpr const char* kPrefixes[] = {"", "pop3_"};

using source_iterator = std::vector<config_source>::const_iterator;

const config_value* login_of(const config_section& section, const std::string& prefix) {
  for (const std::string& key : login_keys(prefix)) {
    if (const config_value* value = section.find(key)) return value;
  }
  return nullptr;
}

// The nearest source that says how to log in, else the end.
source_iterator find_login(const std::vector<config_source>& sources, const std::string& prefix) {
  return std::find_if(sources.begin(), sources.end(), [&](const config_source& source) {
    return login_of(*source.section, prefix) != nullptr;
  });
}

// The value that counts among these sources, null when they have none.
const config_value* value_of(source_iterator from, source_iterator to, const std::string& key) {
  for (; from != to; ++from) {
    if (const config_value* value = from->section->find(key)) return value;
  }
  return nullptr;
}

// What says how to log in, and where it stands among the sources of a protocol.
struct known_login {
  source_iterator place;
  const config_value* value;
  std::string remedy;
};

// Throws a problem when a source in front of the login has another value than is meant by it.
void check_meant(const std::vector<config_source>& sources, const known_login& login,
                 const std::string& key, const config_value* meant) {
  const config_value* own = value_of(sources.begin(), login.place, key);
  if (own == nullptr || meant == nullptr || own->texts == meant->texts) return;
  throw own->place.fault("the " + key + " of account \"" + sources[0].account +
                         "\" has no login of its own; that of " + login.value->place.text() +
                         " is for another: give the account a " + login.remedy);
}

void check_meant(const std::vector<config_source>& sources, const known_login& login,
                 const std::string& prefix) {
  for (const char* key : {"server", "user"}) {
    check_meant(sources, login, prefix + key, value_of(login.place, sources.end(), prefix + key));
  }
}

}  // namespace

std::vector<std::string> login_keys(const std::string& prefix) {
  std::vector<std::string> keys;
  for (const char* word : {kPasswordKey, "password_file", "password_command", "token_command"}) {
    keys.push_back(prefix + word);
  }
  return keys;
}

bool uses_provider(const std::vector<config_source>& sources,
                   const std::vector<config_source>& providers) {
  const source_iterator login = find_login(sources, "");
  return !providers.empty() && (login == sources.end() || providers[0].depth <= login->depth);
}

void check_login(const std::vector<config_source>& sources) {
  for (const std::string prefix : kPrefixes) {
    const source_iterator place = find_login(sources, prefix);
    if (place == sources.end()) continue;
    const config_value* const value = login_of(*place->section, prefix);
    check_meant(sources, {place, value, prefix + "password_command"}, prefix);
  }
  // Without a login of its own, the one with POP3 before sending has that of the server.
  const source_iterator place = find_login(sources, "");
  const auto value = [&](const char* key) { return value_of(place, sources.end(), key); };
  const bool is_shared = find_login(sources, kPrefixes[1]) == sources.end() &&
                         value_of(sources.begin(), sources.end(), "pop3_user") == nullptr;
  if (place == sources.end() || !is_shared) return;
  check_meant(sources, {place, login_of(*place->section, ""), "pop3_password_command"},
              "pop3_server",
              value("pop3_server") != nullptr ? value("pop3_server") : value("server"));
}

void check_refresh_token(const std::vector<config_source>& sources,
                         const std::vector<config_source>& providers) {
  if (!uses_provider(sources, providers)) return;
  for (const char* key : {"load_command", "store_command"}) {
    for (const config_source& provider : providers) {
      const config_value* const command = provider.section->find(key);
      if (command == nullptr) continue;
      const source_iterator place =
          std::find_if(sources.begin(), sources.end(),
                       [&](const config_source& source) { return source.rank >= provider.rank; });
      check_meant(sources, {place, command, key}, "");
      break;
    }
  }
}

void settle(const config_section& section, std::set<std::string>& settled) {
  for (const config_value& value : section.values) settled.insert(value.key);
  // One way to log in settles the others.
  for (const std::string prefix : kPrefixes) {
    if (login_of(section, prefix) == nullptr) continue;
    const std::vector<std::string> all = login_keys(prefix);
    settled.insert(all.begin(), all.end());
  }
}

}  // namespace tavmail
