#include "seen_path.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "problem.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/taveml_easy_text.h"
#include "received_text.h"

namespace tavmail {

namespace {

// Some file systems take names of 143 bytes, and an ending follows.
constexpr size_t kLongestName = 120;
constexpr size_t kKept = 80;  // of a longer one

std::string folder_of_lists() {
  std::string folder;
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  if (state != nullptr && *state == '/') {
    folder = state;
  } else if (home != nullptr && *home == '/') {
    folder = std::string(home) + "/.local/state";
  } else {
    throw problem(EX_USAGE, "no home directory to keep the list of seen mails in; add --seen FILE");
  }
  return folder + "/tavmail";
}

// Without "/", "," and "~", which mean something in a name.
std::string encoded(const std::string& text) {
  std::string word;
  for (const char ch : text) {
    const bool is_plain = (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'z') ||
                          (ch >= 'A' && ch <= 'Z') || std::strchr("-._@+", ch) != nullptr;
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02X",
                  static_cast<unsigned int>(static_cast<unsigned char>(ch)));
    word += is_plain && ch != '\0' ? std::string(1, ch) : escape;
  }
  return word;
}

}  // namespace

std::string mailbox_key(const mailbox_options& mailbox) {
  std::string host = lower_case(mailbox.server);
  if (host.size() > 1 && host.back() == '.') host.pop_back();
  return std::string(mailbox.tls == tls_mode::implicit ? "pop3s," : "pop3,") + encoded(host) + "," +
         std::to_string(mailbox.port) + "," + encoded(mailbox.user);
}

std::string fingerprint(const std::string& text) {
  char digits[33];
  quorvelmida::tav_eml_mlutl_mail_hash().GetMD5Hash(text.c_str(), digits);
  return digits;
}

seen_path place_of_list(const mailbox_options& mailbox, const std::string& wanted) {
  if (!wanted.empty()) return {wanted, ""};
  const std::string key = mailbox_key(mailbox);
  const std::string folder = folder_of_lists() + "/";
  const std::string name =
      key.size() > kLongestName ? key.substr(0, kKept) + "~" + fingerprint(key) : key;
  // The older name was cut at a slash, and other characters were replaced.
  const std::string old = mailbox.user + "@" + mailbox.server;
  const bool is_own = quorvelmida::easy::safe_file_name(old, "") == old;
  return {folder + name + ".seen", is_own ? folder + old + ".seen" : ""};
}

void make_folder_of(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw problem(EX_CANTCREAT, "cannot make " + folder.string() + ": " + error.message());
}

}  // namespace tavmail
