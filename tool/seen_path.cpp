#include "seen_path.h"

#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/taveml_easy_text.h"
#include "received_text.h"
#include "state_file.h"

namespace tavmail {

namespace {

// Some file systems take names of 143 bytes, and an ending follows.
constexpr size_t kLongestName = 120;
constexpr size_t kKept = 80;  // of a longer one

}  // namespace

std::string mailbox_key(bool is_implicit_tls, const std::string& server, int port,
                        const std::string& user) {
  std::string host = lower_case(server);
  if (host.size() > 1 && host.back() == '.') host.pop_back();
  return std::string(is_implicit_tls ? "pop3s," : "pop3,") + encoded_name(host) + "," +
         std::to_string(port) + "," + encoded_name(user);
}

std::string fingerprint(const std::string& text) {
  char digits[33];
  quorvelmida::tav_eml_mlutl_mail_hash().GetMD5Hash(text.c_str(), digits);
  return digits;
}

seen_path default_seen_path(const std::string& key, const std::string& server,
                            const std::string& user) {
  const std::string folder = state_folder("add --seen FILE") + "/";
  const std::string name =
      key.size() > kLongestName ? key.substr(0, kKept) + "~" + fingerprint(key) : key;
  // The older name was cut at a slash, and other characters were replaced.
  const std::string old = user + "@" + server;
  const bool is_own = quorvelmida::easy::safe_file_name(old, "") == old;
  return {folder + name + ".seen", is_own ? folder + old + ".seen" : ""};
}

}  // namespace tavmail
