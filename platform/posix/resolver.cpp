#include "resolver.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <exception>
#include <string>
#include <thread>

#include "port_time.h"
#include "wake.h"

namespace {

// One question to the system, which cannot be taken back: a thread of its own asks it, and whoever
// has lost patience leaves it alone. The last of the two frees what came of it.
class question {
 public:
  question(const char* host, const char* service, const addrinfo& hints)
      : m_cHost(host),
        m_cService(service != nullptr ? service : ""),
        m_hasService(service != nullptr),
        m_hints(hints),
        m_nEvent(eventfd(0, EFD_CLOEXEC)) {}
  ~question() {
    if (m_nEvent >= 0) close(m_nEvent);
  }
  question(const question&) = delete;
  question& operator=(const question&) = delete;

  bool is_usable() const { return m_nEvent >= 0; }

  void ask() {
    addrinfo* list = nullptr;
    m_nResult =
        getaddrinfo(m_cHost.c_str(), m_hasService ? m_cService.c_str() : nullptr, &m_hints, &list);
    if (m_nResult == 0) m_list.reset(list);
    m_isAnswered = true;
    const uint64_t one = 1;
    while (write(m_nEvent, &one, sizeof one) < 0 && errno == EINTR) {
    }
  }

  // False when there is no answer in time.
  bool wait() const {
    deadline(kDefaultTimeoutMs).wait(m_nEvent, POLLIN);
    return m_isAnswered;
  }

  // After the answer.
  int take(addrinfo_ptr& list) {
    list = std::move(m_list);
    return m_nResult;
  }

 private:
  const std::string m_cHost;
  const std::string m_cService;
  const bool m_hasService;
  const addrinfo m_hints;
  const int m_nEvent;
  int m_nResult = EAI_AGAIN;
  addrinfo_ptr m_list;
  std::atomic<bool> m_isAnswered{false};
};

// A thread that no signal of the program reaches.
std::thread start_quietly(std::shared_ptr<question> asked) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  struct restore {
    const sigset_t& mask;
    ~restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } const at_the_end{before};
  return std::thread([asked = std::move(asked)] { asked->ask(); });
}

}  // namespace

int resolve(const char* host, const char* service, const addrinfo& hints,
            addrinfo_ptr& list) noexcept try {
  if (is_woken()) return EAI_AGAIN;
  // Nobody has to be asked about an address.
  addrinfo literal = hints;
  literal.ai_flags |= AI_NUMERICHOST;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, service, &literal, &found) == 0) {
    list.reset(found);
    return 0;
  }
  const auto asked = std::make_shared<question>(host, service, hints);
  if (!asked->is_usable()) return EAI_MEMORY;
  std::thread thread = start_quietly(asked);
  if (!asked->wait()) {
    thread.detach();
    return EAI_AGAIN;
  }
  thread.join();
  return asked->take(list);
} catch (const std::exception&) {  // no memory, or no thread
  return EAI_MEMORY;
}
