#include "seen_path.h"

#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/taveml_easy_text.h"
#include "received_text.h"
#include "state_file.h"
#include "words.h"

namespace tavmail {

namespace {

// Some file systems take names of 143 bytes, and an ending follows.
constexpr size_t kLongestName = 120;
constexpr size_t kKept = 80;  // of a longer one

}  // namespace

std::string mailbox_key(const mailbox_options& mailbox) {
  std::string host = lower_case(mailbox.server);
  if (host.size() > 1 && host.back() == '.') host.pop_back();
  return std::string(mailbox.tls == tls_mode::implicit ? "pop3s," : "pop3,") + encoded_name(host) +
         "," + std::to_string(mailbox.port) + "," + encoded_name(mailbox.user);
}

std::string fingerprint(const std::string& text) {
  char digits[33];
  quorvelmida::tav_eml_mlutl_mail_hash().GetMD5Hash(text.c_str(), digits);
  return digits;
}

seen_path place_of_list(const mailbox_options& mailbox, const std::string& wanted) {
  if (!wanted.empty()) return {wanted, ""};
  const std::string key = mailbox_key(mailbox);
  const std::string folder = state_folder("add --seen FILE") + "/";
  const std::string name =
      key.size() > kLongestName ? key.substr(0, kKept) + "~" + fingerprint(key) : key;
  // The older name was cut at a slash, and other characters were replaced.
  const std::string old = mailbox.user + "@" + mailbox.server;
  const bool is_own = quorvelmida::easy::safe_file_name(old, "") == old;
  return {folder + name + ".seen", is_own ? folder + old + ".seen" : ""};
}

}  // namespace tavmail
