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
#include <sstream>

#include "disk.h"
#include "problem.h"

namespace tavmail {

namespace {

constexpr char kTitle[] =
    "# mails that tavmail has received: 0, delete, or tries that failed; unique id; copy";
constexpr char kEmpty[] = "%";  // no encoded unique id is that

// States that are not a number of tries. The first two are also words of the file.
constexpr int kToGo = -1;
constexpr int kNew = -2;
constexpr int kReceived = 0;
constexpr char kToGoWord[] = "delete";
constexpr char kNewWord[] = "new";
constexpr int kMostStates = 1000000;  // more tries or copies than that are an error in the file

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

std::string line_of(const std::string& uid, int copy, int state) {
  std::string line = state == kToGo ? kToGoWord : state == kNew ? kNewWord : std::to_string(state);
  line += " " + encoded(uid);
  if (copy > 1) line += " " + std::to_string(copy);
  return line + "\n";
}

// A whole number from `least` to kMostStates; false for anything else.
bool take_number(const std::string& word, int least, int& number) {
  const bool is_number =
      !word.empty() && word.size() < 8 && word.find_first_not_of("0123456789") == word.npos;
  number = is_number ? std::atoi(word.c_str()) : -1;
  return number >= least && number <= kMostStates;
}

problem cannot_write(const std::string& path) {
  return problem(EX_CANTCREAT,
                 "cannot write " + path + ": " + std::strerror(errno) + "; choose another --seen");
}

}  // namespace

seen_file::seen_file(const std::string& path, const std::string& old) : m_path(path) {
  m_lock = open((path + ".lock").c_str(), O_CREAT | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (m_lock < 0) throw cannot_write(path + ".lock");
  if (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
    close(m_lock);
    throw problem(EX_TEMPFAIL, "another tavmail is receiving with " + path + "; wait for it");
  }
  try {
    if (!old.empty()) take_over(old);
    read();
  } catch (...) {
    close(m_lock);
    throw;
  }
}

seen_file seen_file::look_at(const std::string& path, const std::string& old) {
  std::error_code error;
  const bool is_old = !old.empty() && !std::filesystem::exists(path, error);
  return seen_file(is_old ? old : path, looking());
}

seen_file::~seen_file() {
  if (m_file >= 0) close(m_file);
  if (m_lock >= 0) close(m_lock);
}

void seen_file::take_over(const std::string& old) const {
  std::error_code error;
  if (std::filesystem::exists(m_path, error) || !std::filesystem::exists(old, error)) return;
  if (std::rename(old.c_str(), m_path.c_str()) != 0) throw cannot_write(m_path);
  unlink((old + ".lock").c_str());
}

void seen_file::read() {
  std::ifstream file(m_path);
  if (!file) {
    std::error_code error;
    if (std::filesystem::exists(m_path, error)) {
      throw problem(EX_NOINPUT, "cannot read --seen " + m_path + "; check its rights");
    }
    return;
  }
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    if (file.eof()) {  // without its end
      m_tidy = false;
      break;
    }
    if (line.empty() || line[0] == '#') continue;
    if (!read_line(line)) {
      throw problem(EX_CONFIG, m_path + ":" + std::to_string(number) +
                                   ": expected \"STATE UID\"; is this a file of seen mails?");
    }
  }
}

bool seen_file::read_line(const std::string& line) {
  std::istringstream words(line);
  std::string word;
  std::string uid;
  std::string more;
  int state = 0;
  int copy = 1;
  if (!(words >> word >> uid)) return false;
  if (words >> more && (!take_number(more, 2, copy) || words >> more)) return false;
  if (word == kToGoWord) {
    state = kToGo;
  } else if (word == kNewWord) {
    state = kNew;
  } else if (!take_number(word, 0, state)) {
    return false;
  }
  int& known = state_of({decoded(uid), copy});
  m_tidy = m_tidy && known == kNew;
  known = state;
  return true;
}

// Writes the whole file anew. It stays open for the lines that follow.
void seen_file::write() {
  std::string text = std::string(kTitle) + "\n";
  for (const auto& [uid, states] : m_states) {
    if (states.size() == 1 && states[0] == kNew) continue;
    for (size_t i = 0; i < states.size(); ++i) {
      text += line_of(uid, static_cast<int>(i) + 1, states[i]);
    }
  }
  std::string fresh = m_path + ".XXXXXX";
  const int fd = mkostemp(fresh.data(), O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) throw cannot_write(m_path);
  const bool is_written =
      write_at(fd, text, 0) && fsync(fd) == 0 && std::rename(fresh.c_str(), m_path.c_str()) == 0;
  if (!is_written) {
    const problem trouble = cannot_write(m_path);
    close(fd);
    unlink(fresh.c_str());
    throw trouble;
  }
  if (m_file >= 0) close(m_file);
  m_file = fd;
  m_end = static_cast<off_t>(text.size());
  m_tidy = true;
  if (!sync_folder_of(m_path)) throw cannot_write(m_path);
}

// Puts the state of a mail at the end of the file.
void seen_file::append(const mail_key& mail) {
  if (m_file < 0) return write();
  const std::string line = line_of(mail.first, mail.second, state(mail));
  if (!write_at(m_file, line, m_end)) {
    const problem trouble = cannot_write(m_path);
    // A line that is cut off would not count anyway.
    if (ftruncate(m_file, m_end) != 0) m_tidy = false;
    throw trouble;
  }
  m_end += static_cast<off_t>(line.size());
  m_tidy = false;
}

int seen_file::state(const mail_key& mail) const {
  const auto found = m_states.find(mail.first);
  const auto index = static_cast<size_t>(mail.second) - 1;
  return found != m_states.end() && index < found->second.size() ? found->second[index] : kNew;
}

int& seen_file::state_of(const mail_key& mail) {
  std::vector<int>& states = m_states[mail.first];
  const auto index = static_cast<size_t>(mail.second) - 1;
  if (index >= states.size()) states.resize(index + 1, kNew);
  return states[index];
}

bool seen_file::is_received(const mail_key& mail) const {
  return state(mail) == kReceived || is_to_go(mail);
}

bool seen_file::is_to_go(const mail_key& mail) const { return state(mail) == kToGo; }

int seen_file::tries(const mail_key& mail) const { return std::max(state(mail), 0); }

void seen_file::begin(const mail_key& mail) {
  state_of(mail) = tries(mail) + 1;
  append(mail);
}

void seen_file::finish(const mail_key& mail, bool is_to_go) {
  state_of(mail) = is_to_go ? kToGo : kReceived;
  append(mail);
  if (fdatasync(m_file) != 0) throw cannot_write(m_path);
}

void seen_file::cancel(const mail_key& mail) {
  const int before = tries(mail) - 1;
  state_of(mail) = before > 0 ? before : kNew;
  append(mail);
}

void seen_file::keep(const std::map<std::string, int>& copies) {
  bool is_changed = false;
  for (auto entry = m_states.begin(); entry != m_states.end();) {
    std::vector<int>& states = entry->second;
    const auto there = copies.find(entry->first);
    const size_t most = there != copies.end() ? static_cast<size_t>(there->second) : 0;
    is_changed = is_changed || states.size() > most;
    while (states.size() > most) {
      const auto gone = std::find_if(states.begin(), states.end(), [](int state) {
        return state == kToGo || state == kReceived;
      });
      states.erase(gone != states.end() ? gone : states.begin());
    }
    entry = states.empty() ? m_states.erase(entry) : std::next(entry);
  }
  // How many copies there are is noted before one is read: it tells later that one is gone.
  for (const auto& [uid, count] : copies) {
    if (count < 2 || state({uid, count}) != kNew) continue;
    std::vector<int>& states = m_states[uid];
    is_changed = is_changed || states.size() < static_cast<size_t>(count);
    states.resize(static_cast<size_t>(count), kNew);
  }
  const bool is_looking = m_lock < 0;
  if (!is_looking && (is_changed || !m_tidy)) write();
}

void seen_file::settle(std::vector<mail_key> deleted) {
  // The last copies first: those after one that goes move up.
  std::sort(deleted.rbegin(), deleted.rend());
  for (const mail_key& mail : deleted) {
    const auto entry = m_states.find(mail.first);
    if (entry == m_states.end()) continue;
    const auto index = mail.second - 1;
    if (static_cast<size_t>(index) < entry->second.size()) {
      entry->second.erase(entry->second.begin() + index);
    }
    if (entry->second.empty()) m_states.erase(entry);
  }
  if (!deleted.empty() || !m_tidy) write();
}

}  // namespace tavmail
