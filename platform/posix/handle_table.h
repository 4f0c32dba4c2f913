// handle_table.h - the 32-bit handles of a TLS wrapper, whose contexts and sessions are objects.

#ifndef HANDLE_TABLE_H
#define HANDLE_TABLE_H

#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

// A handle is never 0, and given out again after all others were. Whoever has found an object keeps
// it, even when another thread removes it meanwhile.
template <typename Context, typename Session>
class handle_table {
 public:
  uint32_t add_context(std::shared_ptr<Context> made) {
    const std::lock_guard<std::mutex> lock(m_cGuard);
    const uint32_t handle = next();
    m_cContexts[handle] = std::move(made);
    return handle;
  }

  // 0 when the context has been removed meanwhile.
  uint32_t add_session(uint32_t context, std::shared_ptr<Session> made) {
    const std::lock_guard<std::mutex> lock(m_cGuard);
    if (m_cContexts.count(context) == 0) return 0;
    const uint32_t handle = next();
    m_cSessions[handle] = {context, std::move(made)};
    return handle;
  }

  // Null for an unknown handle.
  std::shared_ptr<Context> context(uint32_t handle) {
    const std::lock_guard<std::mutex> lock(m_cGuard);
    const auto found = m_cContexts.find(handle);
    return found != m_cContexts.end() ? found->second : nullptr;
  }
  std::shared_ptr<Session> session(uint32_t handle) {
    const std::lock_guard<std::mutex> lock(m_cGuard);
    const auto found = m_cSessions.find(handle);
    return found != m_cSessions.end() ? found->second.second : nullptr;
  }

  // With all its sessions. False for an unknown handle.
  bool remove_context(uint32_t handle) {
    const std::lock_guard<std::mutex> lock(m_cGuard);
    if (m_cContexts.erase(handle) == 0) return false;
    for (auto entry = m_cSessions.begin(); entry != m_cSessions.end();) {
      entry = entry->second.first == handle ? m_cSessions.erase(entry) : std::next(entry);
    }
    return true;
  }

 private:
  uint32_t next() {
    do {
      ++m_nLast;
    } while (m_nLast == 0 || m_cContexts.count(m_nLast) != 0 || m_cSessions.count(m_nLast) != 0);
    return m_nLast;
  }

  std::mutex m_cGuard;
  uint32_t m_nLast = 0;
  std::map<uint32_t, std::shared_ptr<Context>> m_cContexts;
  std::map<uint32_t, std::pair<uint32_t, std::shared_ptr<Session>>> m_cSessions;
};

#endif
