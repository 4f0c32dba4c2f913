#include "trust_store.h"

#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string_view>

namespace tavmail {

namespace {

constexpr std::string_view kFile = "SSL_CERT_FILE";
constexpr std::string_view kFolder = "SSL_CERT_DIR";

// "NAME=VALUE", while other certificates are trusted.
std::optional<std::vector<std::string>> g_before;

bool is_ours(std::string_view variable) {
  const std::string_view name = variable.substr(0, variable.find('='));
  return name == kFile || name == kFolder;
}

}  // namespace

void trust(const std::string& ca_file) {
  if (!g_before) {
    g_before.emplace();
    for (char** each = environ; *each != nullptr; ++each) {
      if (is_ours(*each)) g_before->emplace_back(*each);
    }
  }
  setenv(kFile.data(), ca_file.c_str(), 1);
  setenv(kFolder.data(), "/dev/null", 1);
}

void reset_trust() {
  if (!g_before) return;
  unsetenv(kFile.data());
  unsetenv(kFolder.data());
  for (const std::string& variable : *g_before) {
    const size_t end = variable.find('=');
    setenv(variable.substr(0, end).c_str(), variable.c_str() + end + 1, 1);
  }
  g_before.reset();
}

std::vector<const char*> environment_of_commands() {
  std::vector<const char*> all;
  for (char** each = environ; *each != nullptr; ++each) {
    if (!g_before || !is_ours(*each)) all.push_back(*each);
  }
  if (!g_before) return all;
  for (const std::string& variable : *g_before) all.push_back(variable.c_str());
  return all;
}

}  // namespace tavmail
