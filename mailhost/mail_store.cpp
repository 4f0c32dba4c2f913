#include "mail_store.h"

#include <algorithm>

#include "text.h"

namespace mailhost {

std::optional<std::string> memory_store::keep(const mail& message) {
  m_mails.push_back({"uid-" + std::to_string(++m_count), message});
  return m_mails.back().uid;
}

std::vector<mail_store::entry> memory_store::list() {
  std::vector<entry> entries;
  for (const kept& one : m_mails) entries.push_back({one.uid, with_crlf(one.message.data).size()});
  return entries;
}

std::optional<std::string> memory_store::text(const std::string& uid) {
  const auto found = find(uid);
  if (found == m_mails.end()) return std::nullopt;
  return with_crlf(found->message.data);
}

void memory_store::remove(const std::string& uid) {
  const auto found = find(uid);
  if (found != m_mails.end()) m_mails.erase(found);
}

void memory_store::add(const std::string& uid, const std::string& data) {
  mail message;
  message.data = data;
  m_mails.push_back({uid, message});
}

std::vector<mail> memory_store::mails() const {
  std::vector<mail> mails;
  for (const kept& one : m_mails) mails.push_back(one.message);
  return mails;
}

std::vector<memory_store::kept>::iterator memory_store::find(const std::string& uid) {
  return std::find_if(m_mails.begin(), m_mails.end(),
                      [&](const kept& one) { return one.uid == uid; });
}

}  // namespace mailhost
