#include "mail_host.h"

#include "pop3_server.h"
#include "smtp_server.h"

namespace mailhost {
namespace {

constexpr int64_t pop_login_lasts = 600;  // seconds

}  // namespace

mail_host::mail_host(settings given, mail_store* store)
    : m_given(std::move(given)),
      m_store(store != nullptr ? store : &memory),
      m_room(m_given.memory_limit) {}

std::unique_ptr<session> mail_host::connect(protocol speaks, const std::string& address) {
  ++m_count;
  if (m_given.keeps_records) m_records.emplace_back();
  if (speaks == protocol::smtp) return std::make_unique<smtp_server>(*this, address);
  return std::make_unique<pop3_server>(*this, address);
}

size_t mail_host::occurrences(protocol speaks, const std::string& point) const {
  const auto found = m_occurrences.find({speaks, point});
  return found != m_occurrences.end() ? found->second : 0;
}

const mail_host::record& mail_host::connection(size_t nth) const {
  static const record none;
  return nth > 0 && nth <= m_records.size() ? m_records[nth - 1] : none;
}

deviation mail_host::next(protocol speaks, const std::string& point) {
  const size_t nth = ++m_occurrences[{speaks, point}];
  const size_t nth_of_all = ++m_occurrences[{speaks, "every"}];
  return script.at(speaks, point, nth, nth_of_all);
}

mail_host::record* mail_host::record_of(size_t connection) {
  return m_given.keeps_records ? &m_records[connection - 1] : nullptr;
}

std::string mail_host::nonce() {
  return m_given.nonce ? m_given.nonce() : std::to_string(++m_nonces);
}

bool mail_host::had_pop_login(const std::string& address) const {
  const auto found = m_popLogins.find(address);
  return found != m_popLogins.end() && m_given.seconds() - found->second <= pop_login_lasts;
}

bool mail_host::take_room(size_t bytes) {
  if (bytes > m_room) return false;
  m_room -= bytes;
  return true;
}

}  // namespace mailhost
