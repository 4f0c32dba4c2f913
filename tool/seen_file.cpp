#include "seen_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "problem.h"
#include "received_text.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr char kTitle[] = "# mails that tavmail has received: tries (0: done), unique id";
constexpr char kEmpty[] = "%";  // no encoded unique id is that
constexpr int kWaiting = 1;
constexpr int kHandedOut = 2;

std::string text_of(const UtlString& text) {
  return text.GetString() != nullptr ? text.GetString() : "";
}

// A unique id as one word of the file: servers may put anything into it.
std::string encoded(const std::string& uid) {
  if (uid.empty()) return kEmpty;
  std::string word;
  for (const char ch : uid) {
    const auto byte = static_cast<unsigned char>(ch);
    if (byte > 0x20 && byte < 0x7F && ch != '%') {
      word += ch;
    } else {
      char escape[4];
      std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned int>(byte));
      word += escape;
    }
  }
  return word;
}

std::string decoded(const std::string& word) {
  std::string uid;
  if (word == kEmpty) return uid;
  for (size_t i = 0; i < word.size(); ++i) {
    if (word[i] == '%' && i + 2 < word.size()) {
      uid += static_cast<char>(std::strtol(word.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      uid += word[i];
    }
  }
  return uid;
}

problem cannot_write(const std::string& path) {
  return problem(EX_CANTCREAT,
                 "cannot write " + path + ": " + std::strerror(errno) + "; choose another --seen");
}

// Writes all of it and waits until it is on the disk.
bool write_through(int fd, const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const ssize_t count = ::write(fd, text.data() + at, text.size() - at);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += static_cast<size_t>(count);
  }
  return fsync(fd) == 0;
}

}  // namespace

std::string default_seen_path(const std::string& user, const std::string& server) {
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
  folder += "/tavmail";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw problem(EX_CANTCREAT, "cannot make " + folder + ": " + error.message());
  return folder + "/" + safe_file_name(user + "@" + server, "mailbox") + ".seen";
}

seen_file::seen_file(const std::string& path) : m_cPath(path) {
  m_nLock = open((path + ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (m_nLock < 0) throw cannot_write(path + ".lock");
  if (flock(m_nLock, LOCK_EX | LOCK_NB) != 0) {
    close(m_nLock);
    throw problem(EX_TEMPFAIL, "another tavmail is receiving with " + path + "; wait for it");
  }
  try {
    read();
  } catch (...) {
    close(m_nLock);
    throw;
  }
}

seen_file::~seen_file() { close(m_nLock); }

void seen_file::read() {
  std::ifstream file(m_cPath);
  if (!file) {
    if (std::filesystem::exists(m_cPath)) {
      throw problem(EX_NOINPUT, "cannot read --seen " + m_cPath + "; check its rights");
    }
    return;
  }
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    int tries = 0;
    std::string uid;
    std::string more;
    if (!(words >> tries >> uid) || tries < 0 || words >> more) {
      throw problem(EX_CONFIG, m_cPath + ":" + std::to_string(number) +
                                   ": expected \"TRIES UID\"; is this a file of seen mails?");
    }
    uid = decoded(uid);
    if (m_cTries.emplace(uid, tries).second) m_cUids.push_back(uid);
  }
}

void seen_file::write() const {
  const std::string fresh = m_cPath + ".new";
  const int fd = open(fresh.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) throw cannot_write(fresh);
  std::string text = std::string(kTitle) + "\n";
  for (const std::string& uid : m_cUids) {
    text += std::to_string(m_cTries.at(uid)) + " " + encoded(uid) + "\n";
  }
  const bool is_written = write_through(fd, text);
  const problem trouble = cannot_write(m_cPath);
  if (close(fd) != 0 || !is_written) {
    unlink(fresh.c_str());
    throw trouble;
  }
  if (std::rename(fresh.c_str(), m_cPath.c_str()) != 0) throw cannot_write(m_cPath);
}

void seen_file::fill(tav_eml_pop3_mail_info_list& list) const {
  for (const std::string& uid : m_cUids) {
    const int begun = tries(uid);
    const int status = begun > 0 && begun < kMostTries ? kWaiting : kHandedOut;
    list.add_mail_info(new tav_eml_pop3_mail_info(0, uid.c_str(), 0, status), 1);
  }
}

int seen_file::tries(const std::string& uid) const {
  const auto found = m_cTries.find(uid);
  return found != m_cTries.end() ? found->second : 0;
}

void seen_file::begin(const std::string& uid) {
  if (m_cTries.emplace(uid, 0).second) m_cUids.push_back(uid);
  ++m_cTries[uid];
  write();
}

void seen_file::finish(const std::string& uid) {
  m_cTries[uid] = 0;
  write();
}

void seen_file::cancel(const std::string& uid) {
  if (--m_cTries[uid] <= 0) {
    m_cTries.erase(uid);
    m_cUids.erase(std::find(m_cUids.begin(), m_cUids.end(), uid));
  }
  write();
}

void seen_file::keep(const tav_eml_pop3_mail_info_list& list) {
  std::vector<std::string> uids;
  for (int i = 0; i < list.m_MailInfoVector.Count(); ++i) {
    const auto* info =
        static_cast<const tav_eml_pop3_mail_info*>(list.m_MailInfoVector.ElementAt(i));
    const std::string uid = text_of(info->m_strUID);
    if (m_cTries.count(uid) != 0) uids.push_back(uid);
  }
  std::map<std::string, int> tries;
  for (const std::string& uid : uids) tries[uid] = m_cTries[uid];
  m_cUids = std::move(uids);
  m_cTries = std::move(tries);
  write();
}

}  // namespace tavmail
