#include "socket_record.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <memory>
#include <mutex>
#include <new>
#include <vector>

namespace {

struct record_table {
  std::mutex guard;
  std::vector<std::unique_ptr<socket_record>> records;  // by descriptor
};

record_table& table() {
  static record_table& instance = *new record_table;  // outlives every thread
  return instance;
}

}  // namespace

bool wait_limit::set(int fd, int32_t milliseconds) {
  if (milliseconds == m_nMilliseconds) return true;
  const timeval limit = {milliseconds / 1000, (milliseconds % 1000) * 1000};
  if (setsockopt(fd, SOL_SOCKET, m_nOption, &limit, sizeof limit) != 0) return false;
  m_nMilliseconds = milliseconds;
  return true;
}

ssize_t peeked_bytes::look(int fd) {
  const ssize_t count = recv(fd, m_aBytes, sizeof m_aBytes, MSG_PEEK);
  m_uNext = 0;
  m_uCount = count > 0 ? static_cast<size_t>(count) : 0;
  return count;
}

// With MSG_TRUNC the system drops bytes without copying them.
bool peeked_bytes::settle(int fd) {
  const size_t taken = m_uNext;
  m_uNext = 0;
  m_uCount = 0;
  if (taken == 0) return true;
  return recv(fd, m_aBytes, taken, MSG_TRUNC | MSG_DONTWAIT) == static_cast<ssize_t>(taken);
}

socket_record::socket_record() : receive_limit(SO_RCVTIMEO), send_limit(SO_SNDTIMEO) {}

bool open_record(int fd) try {
  auto record = std::make_unique<socket_record>();
  const std::lock_guard<std::mutex> lock(table().guard);
  auto& records = table().records;
  const auto index = static_cast<size_t>(fd);
  if (index >= records.size()) records.resize(index + 1);
  if (records[index] != nullptr) {
    *records[index] = *record;
  } else {
    records[index] = std::move(record);
  }
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void close_record() { const std::lock_guard<std::mutex> lock(table().guard); }

socket_record* find_record(int fd) {
  const std::lock_guard<std::mutex> lock(table().guard);
  const auto& records = table().records;
  return fd > 0 && static_cast<size_t>(fd) < records.size() ? records[static_cast<size_t>(fd)].get()
                                                            : nullptr;
}
