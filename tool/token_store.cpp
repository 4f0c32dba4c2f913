#include "token_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "disk.h"
#include "input_file.h"
#include "interrupt.h"
#include "json_text.h"
#include "problem.h"
#include "state_file.h"

namespace tavmail {

namespace {

using json = nlohmann::json;

constexpr size_t kLargestStore = 64 * 1024;
constexpr off_t kUsualSize = 2 * 8192 + 4096;  // of the longest tokens

problem cannot_keep(const std::string& path, int error) {
  return problem(EX_CANTCREAT, "cannot write " + path + ": " + std::strerror(error),
                 "make room there, or check its rights");
}

// A file beside the one that it is to become.
class new_file {
 public:
  explicit new_file(const std::string& path) : m_path(path), m_next(path + ".new") {
    unlink(m_next.c_str());  // of a run that was killed
    m_fd = open(m_next.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (m_fd < 0) throw cannot_keep(m_path, errno);
  }
  new_file(const new_file&) = delete;
  new_file& operator=(const new_file&) = delete;
  ~new_file() {
    close(m_fd);
    unlink(m_next.c_str());
  }

  void reserve() const {
    const int error = posix_fallocate(m_fd, 0, kUsualSize);
    if (error != 0) throw cannot_keep(m_path, error);
  }

  void become(const std::string& text) const {
    const bool is_kept = write_at(m_fd, text, 0) && fsync(m_fd) == 0 &&
                         rename(m_next.c_str(), m_path.c_str()) == 0 && sync_folder_of(m_path);
    if (!is_kept) throw cannot_keep(m_path, errno);
  }

 private:
  const std::string m_path;
  const std::string m_next;
  int m_fd;
};

shell_command::settings command_settings(const char* what, std::chrono::milliseconds patience) {
  shell_command::settings how;
  how.what = what;
  how.end = shell_command::clock::now() + patience;
  return how;
}

}  // namespace

token_store::token_store(const token_provider& provider)
    : m_provider(provider),
      m_path(state_folder("set HOME") + "/" + encoded_name(provider.account) + ".token") {}

token_store::lock::lock(const token_store& store, std::chrono::milliseconds patience) {
  const std::string path = store.m_path + ".lock";
  const auto end = std::chrono::steady_clock::now() + patience;
  make_folder_of(path);
  m_fd = open(path.c_str(), O_CREAT | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (m_fd < 0) throw cannot_keep(path, errno);
  try {
    while (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
      interrupt_guard::check();
      if (std::chrono::steady_clock::now() >= end) {
        throw problem(
            EX_TEMPFAIL,
            "another tavmail is at the tokens of account \"" + store.m_provider.account + "\"",
            "try again later");
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  } catch (const problem&) {
    close(m_fd);
    throw;
  }
}

token_store::lock::~lock() { close(m_fd); }

kept_tokens token_store::load(std::chrono::milliseconds patience) const {
  if (!has_commands()) return load_file();
  return {read_token(m_provider.load_command, command_settings("load_command", patience)),
          std::nullopt, 0, ""};
}

kept_tokens token_store::load_file() const {
  const std::string again = "run tavmail authorize " + m_provider.account;
  if (access(m_path.c_str(), F_OK) != 0 && errno == ENOENT) {
    throw problem(EX_NOPERM, "there is no consent for account \"" + m_provider.account + "\" yet",
                  again);
  }
  input_file file(m_path, "the tokens in");
  if (file.is_open_to_others()) {
    throw problem(EX_CONFIG, "others can read the tokens in " + m_path, "chmod 600 it");
  }
  const json document = json::parse(file.read_all(kLargestStore), nullptr, false);
  const std::string refresh = text_at(document, "refresh_token");
  if (refresh.empty()) throw problem(EX_CONFIG, m_path + " holds no tokens", again);
  if (text_at(document, "token_endpoint") != m_provider.token_endpoint ||
      text_at(document, "client_id") != m_provider.client_id ||
      text_at(document, "asked") != m_provider.scope) {
    throw problem(EX_NOPERM,
                  "the consent for account \"" + m_provider.account +
                      "\" was given to another provider, client or scope",
                  again);
  }
  kept_tokens kept = {token_text(refresh, m_path), std::nullopt, 0, text_at(document, "scope")};
  const std::string latest = text_at(document, "access_token");
  if (!latest.empty()) kept.access = token_text(latest, m_path);
  const auto expires = document.find("expires");
  if (expires != document.end() && expires->is_number_integer()) {
    kept.expires = expires->get<std::time_t>();
  }
  return kept;
}

void token_store::reserve() const {
  if (!has_commands()) new_file(m_path).reserve();
}

void token_store::save(const kept_tokens& tokens, bool is_new,
                       std::chrono::milliseconds patience) const {
  if (has_commands()) {
    if (!is_new) return;
    shell_command::settings how = command_settings("store_command", patience);
    how.input = tokens.refresh.text();
    shell_command(m_provider.store_command, how).finish();
    return;
  }
  json document = {{"token_endpoint", m_provider.token_endpoint},
                   {"client_id", m_provider.client_id},
                   {"asked", m_provider.scope},
                   {"scope", tokens.scope},
                   {"refresh_token", tokens.refresh.text()},
                   {"expires", tokens.expires}};
  if (tokens.access) document["access_token"] = tokens.access->text();
  new_file(m_path).become(document.dump(1, ' ', false, json::error_handler_t::replace) + "\n");
}

}  // namespace tavmail
