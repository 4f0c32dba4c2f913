#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "port_time.h"
#include "resolver.h"
#include "socket_record.h"
#include "tav_family.h"
#include "tav_netsock.h"
#include "tav_netsock_tls.h"
#include "wake.h"
#include "wiretap.h"

namespace {

constexpr int kFirstHandle = 1;

// For which a call waits within the system, where nothing but a signal wakes it.
constexpr int kSliceMs = 100;

// The latest answer of the resolver to this thread.
struct resolution {
  std::string host;
  std::vector<std::array<uint8_t, 17>> addresses;  // family and address
};
thread_local resolution t_latest;

std::atomic<int32_t> g_family{TAV_NETSOCK_UNSPEC};

std::array<uint8_t, 17> address_key(const void* addr) {
  std::array<uint8_t, 17> key{};
  uint16_t family;
  std::memcpy(&family, addr, sizeof family);
  key[0] = static_cast<uint8_t>(family);
  if (family == AF_INET) {
    std::memcpy(&key[1], static_cast<const tav_netsock_sockaddr_in*>(addr)->addr, 4);
  } else {
    std::memcpy(&key[1], static_cast<const tav_netsock_sockaddr_in6*>(addr)->addr, 16);
  }
  return key;
}

void remember_name(socket_record& record, const void* addr) {
  const auto key = address_key(addr);
  for (const auto& address : t_latest.addresses) {
    if (address == key) record.name = t_latest.host;
  }
}

// One entry of the answer and the address that it points to.
struct list_entry : tav_netsock_addrinfo {
  std::array<uint8_t, 28> storage{};
};

list_entry* make_entry(const addrinfo& source) {
  const bool is_known = source.ai_family == AF_INET || source.ai_family == AF_INET6;
  auto entry = std::make_unique<list_entry>();
  if (!is_known || source.ai_addrlen > entry->storage.size()) return nullptr;
  std::memcpy(entry->storage.data(), source.ai_addr, source.ai_addrlen);
  entry->flags = source.ai_flags;
  entry->family = source.ai_family;
  entry->socket_type = source.ai_socktype;
  entry->protocol = source.ai_protocol;
  entry->addr_len = static_cast<int32_t>(source.ai_addrlen);
  entry->addr = entry->storage.data();
  entry->next = nullptr;
  return entry.release();
}

// Copies the system's answer and remembers it for the names of sockets.
tav_netsock_addrinfo* copy_answer(const char* host, const addrinfo* answer) {
  t_latest = resolution();
  t_latest.host = host;
  tav_netsock_addrinfo* first = nullptr;
  tav_netsock_addrinfo** last = &first;
  try {
    for (; answer != nullptr; answer = answer->ai_next) {
      list_entry* entry = make_entry(*answer);
      if (entry == nullptr) continue;
      *last = entry;
      last = &entry->next;
      t_latest.addresses.push_back(address_key(entry->addr));
    }
  } catch (const std::bad_alloc&) {
    tav_netsock_freeaddrinfo(first);
    throw;
  }
  return first;
}

// Never 0, which means "no socket".
int avoid_zero(int fd) {
  if (fd != 0) return fd;
  const int other = fcntl(fd, F_DUPFD_CLOEXEC, kFirstHandle);
  close(fd);
  return other;
}

bool is_handle(int32_t sock) { return sock >= kFirstHandle; }

int32_t finish_connect(int fd, const deadline& until) {
  const int ready = until.wait(fd, POLLOUT);
  if (ready == 0) return TAV_NETSOCK_TIMEOUT;
  int error = 0;
  socklen_t length = sizeof error;
  if (ready < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
    return TAV_NETSOCK_ERROR;
  }
  return 0;
}

bool would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

// Calls `move` until it moves something, fails, or the time is over. With `waits_inside` the first
// call waits within the system, for kSliceMs at most: nearly every reply comes by then, with one
// call instead of three. Otherwise poll() waits, which tav_wake() ends at once.
template <typename Move>
int32_t transfer(int32_t sock, bool waits_inside, short events, int32_t timeout_ms, Move&& move) {
  if (is_woken()) return TAV_NETSOCK_TIMEOUT;
  const deadline until(timeout_ms);
  int wait_flag = waits_inside ? 0 : MSG_DONTWAIT;
  for (;;) {
    const ssize_t count = move(wait_flag);
    if (count >= 0) return static_cast<int32_t>(count);
    if (!would_block(errno) && errno != EINTR) return TAV_NETSOCK_ERROR;
    wait_flag = MSG_DONTWAIT;
    const int ready = events == POLLOUT ? until.wait_for_room(sock) : until.wait(sock, events);
    if (ready <= 0) return ready == 0 ? TAV_NETSOCK_TIMEOUT : TAV_NETSOCK_ERROR;
  }
}

// "192.0.2.1 port 25", for an observer.
std::string address_text(const void* addr) {
  tav_netsock_sockaddr_in6 address = {};
  std::memcpy(&address, addr, sizeof(tav_netsock_sockaddr_in));
  char text[INET6_ADDRSTRLEN] = "";
  if (address.family == AF_INET) {
    inet_ntop(AF_INET, static_cast<const tav_netsock_sockaddr_in*>(addr)->addr, text, sizeof text);
  } else {
    inet_ntop(AF_INET6, static_cast<const tav_netsock_sockaddr_in6*>(addr)->addr, text,
              sizeof text);
  }
  return std::string(text) + " port " + std::to_string(ntohs(address.port));
}

// Tells an observer what was moved.
int32_t observed(TAV_WIRETAP_EVENT event, const void* data, int32_t count) {
  if (count > 0) wiretap(event, {static_cast<const char*>(data), static_cast<size_t>(count)});
  return count;
}

bool is_usable_link(const ifaddrs& entry) {
  constexpr unsigned int kUp = IFF_UP | IFF_RUNNING;
  return entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET6 &&
         (entry.ifa_flags & kUp) == kUp && (entry.ifa_flags & IFF_LOOPBACK) == 0;
}

}  // namespace

int32_t tav_netsock_getaddrinfo(const char* host, const char* service,
                                const tav_netsock_addrinfo* hints,
                                tav_netsock_addrinfo** list) noexcept {
  if (host == nullptr || list == nullptr) return EAI_NONAME;
  *list = nullptr;
  addrinfo system_hints = {};
  if (hints != nullptr) {
    system_hints.ai_flags = hints->flags;
    system_hints.ai_family = hints->family;
    system_hints.ai_socktype = hints->socket_type;
    system_hints.ai_protocol = hints->protocol;
  }
  if (system_hints.ai_family == AF_UNSPEC) system_hints.ai_family = g_family;
  addrinfo_ptr answer;
  const int result = resolve(host, service, system_hints, answer);
  if (result != 0) return result;
  try {
    *list = copy_answer(host, answer.get());
    return 0;
  } catch (const std::bad_alloc&) {
    return EAI_MEMORY;
  }
}

void tav_netsock_use_family(int32_t family) noexcept { g_family = family; }

void tav_netsock_freeaddrinfo(tav_netsock_addrinfo* list) noexcept {
  while (list != nullptr) {
    const std::unique_ptr<list_entry> entry(static_cast<list_entry*>(list));
    list = entry->next;
  }
}

int32_t tav_netsock_socket(int32_t family, int32_t type, int32_t protocol) noexcept {
  const int fd = avoid_zero(socket(family, type | SOCK_CLOEXEC, protocol));
  if (fd < 0) return -1;
  if (!open_record(fd)) {
    close(fd);
    return -1;
  }
  const int on = 1;
  // Commands are small: without it each would wait for the reply to the one before.
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const timeval slice = {0, kSliceMs * 1000};
  if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &slice, sizeof slice) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &slice, sizeof slice) != 0) {
    tav_netsock_close(fd);
    return -1;
  }
  return fd;
}

int32_t tav_netsock_set_scope(void* addr, int32_t addr_len) noexcept {
  if (addr == nullptr || addr_len < static_cast<int32_t>(sizeof(tav_netsock_sockaddr_in6))) {
    return -1;
  }
  ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return -1;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(interfaces, freeifaddrs);
  for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
    if (!is_usable_link(*entry)) continue;
    sockaddr_in6 own;
    std::memcpy(&own, entry->ifa_addr, sizeof own);
    if (!IN6_IS_ADDR_LINKLOCAL(&own.sin6_addr)) continue;
    static_cast<tav_netsock_sockaddr_in6*>(addr)->scope_id = own.sin6_scope_id;
    return 0;
  }
  return -1;
}

int32_t tav_netsock_connect_timeo(int32_t sock, const void* addr, int32_t addr_len,
                                  int32_t timeout_ms) noexcept try {
  socket_record* const record = find_record(sock);
  if (record == nullptr || addr == nullptr || addr_len < 0) return TAV_NETSOCK_ERROR;
  if (is_woken()) return TAV_NETSOCK_TIMEOUT;
  if (has_wiretap()) wiretap(TAV_WIRETAP_CONNECTING, address_text(addr));
  const deadline until(timeout_ms);
  int32_t result = 0;
  if (connect(sock, static_cast<const sockaddr*>(addr), static_cast<socklen_t>(addr_len)) != 0) {
    // A connect that was interrupted, or takes more than a slice, goes on in the background.
    if (errno != EINPROGRESS && errno != EINTR) return TAV_NETSOCK_ERROR;
    result = finish_connect(sock, until);
  }
  if (result != 0) return result;
  remember_name(*record, addr);
  if (has_wiretap()) wiretap(TAV_WIRETAP_CONNECTED, address_text(addr));
  return 0;
} catch (const std::bad_alloc&) {
  return TAV_NETSOCK_ERROR;
}

int32_t tav_netsock_send_timeo(int32_t sock, const void* data, int32_t len, int32_t flags,
                               int32_t timeout_ms) noexcept {
  if (!is_handle(sock) || data == nullptr || len < 0) return TAV_NETSOCK_ERROR;
  const int wishes = (flags & ~MSG_DONTWAIT) | MSG_NOSIGNAL;
  const int32_t count = transfer(sock, false, POLLOUT, timeout_ms, [&](int wait_flag) {
    return send(sock, data, static_cast<size_t>(len), wishes | wait_flag);
  });
  return observed(TAV_WIRETAP_SENT, data, count);
}

int32_t tav_netsock_recv_timeo(int32_t sock, void* data, int32_t len, int32_t flags,
                               int32_t timeout_ms) noexcept {
  if (!is_handle(sock) || data == nullptr || len < 0) return TAV_NETSOCK_ERROR;
  socket_record* const record = find_record(sock);
  const auto length = static_cast<size_t>(len);
  const int wishes = flags & ~MSG_DONTWAIT;
  // Only the port's own sockets end such a wait.
  const bool waits_inside = record != nullptr && (timeout_ms <= 0 || timeout_ms >= kSliceMs);
  int32_t count;
  if (record == nullptr || record->ahead.is_empty()) {
    count = transfer(sock, waits_inside, POLLIN, timeout_ms, [&](int wait_flag) {
      return record != nullptr ? record->ahead.receive(sock, data, length, wishes | wait_flag)
                               : recv(sock, data, length, wishes | wait_flag);
    });
  } else if (is_woken()) {
    count = TAV_NETSOCK_TIMEOUT;
  } else if (wishes == 0 || wishes == MSG_PEEK) {
    count = static_cast<int32_t>(record->ahead.take(data, length, wishes));
  } else {
    count = TAV_NETSOCK_ERROR;  // only the system knows what to do, and it does not have the bytes
  }
  return observed(TAV_WIRETAP_RECEIVED, data, count);
}

const char* tav_netsock_get_name(int32_t sock) noexcept {
  const socket_record* const record = find_record(sock);
  return record != nullptr ? record->name.c_str() : "";
}

int32_t tav_netsock_has_bytes(int32_t sock) noexcept {
  int type = 0;
  socklen_t length = sizeof type;
  if (!is_handle(sock) || getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &length) != 0) return -1;
  const socket_record* const record = find_record(sock);  // null when others have made it
  if (record != nullptr && !record->ahead.is_empty()) return 1;
  char byte;
  return recv(sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0 ? 1 : 0;
}

int32_t tav_netsock_shutdown(int32_t sock) noexcept {
  if (!is_handle(sock)) return -1;
  if (shutdown(sock, SHUT_RDWR) == 0 || errno == ENOTCONN) return 0;
  return -1;
}

int32_t tav_netsock_close(int32_t sock) noexcept {
  if (!is_handle(sock)) return -1;
  wiretap(TAV_WIRETAP_CLOSED);
  close_record(sock);
  return close(sock) == 0 || errno == EINTR ? 0 : -1;
}
