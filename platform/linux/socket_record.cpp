#include "socket_record.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

namespace {

constexpr size_t kMailBytes = 64 * 1024;

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

size_t read_ahead::take(void* data, size_t length, int flags) {
  const size_t count = std::min(length, static_cast<size_t>(m_end - m_next));
  std::memcpy(data, m_next, count);
  if ((flags & MSG_PEEK) == 0) m_next += count;
  return count;
}

// Who asks for more than a byte receives a mail. Without memory the small buffer serves as well.
void read_ahead::make_room() {
  if (m_mail != nullptr) return;
  m_mail.reset(new (std::nothrow) char[kMailBytes]);
  if (m_mail == nullptr) return;
  m_first = m_mail.get();
  m_size = kMailBytes;
}

ssize_t read_ahead::receive(int fd, void* data, size_t length, int flags) {
  if (length > 1) make_room();
  iovec pieces[] = {{data, length}, {m_first, m_size}};
  msghdr message = {};
  message.msg_iov = pieces;
  message.msg_iovlen = (flags & MSG_PEEK) == 0 ? 2 : 1;
  const ssize_t count = recvmsg(fd, &message, flags);
  clear();
  if (count <= static_cast<ssize_t>(length)) return count;
  m_end += static_cast<size_t>(count) - length;
  return static_cast<ssize_t>(length);
}

socket_record::socket_record() : receive_limit(SO_RCVTIMEO), send_limit(SO_SNDTIMEO) {}

void socket_record::begin() {
  name.clear();
  receive_limit = wait_limit(SO_RCVTIMEO);
  send_limit = wait_limit(SO_SNDTIMEO);
  ahead.clear();
}

bool open_record(int fd) try {
  const std::lock_guard<std::mutex> lock(table().guard);
  auto& records = table().records;
  const auto index = static_cast<size_t>(fd);
  if (index >= records.size()) records.resize(index + 1);
  if (records[index] != nullptr) {
    records[index]->begin();
  } else {
    records[index] = std::make_unique<socket_record>();
  }
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void close_record() { const std::lock_guard<std::mutex> lock(table().guard); }

// A thread mostly asks for the same record again, and records stay where they are.
socket_record* find_record(int fd) {
  thread_local int t_fd = 0;
  thread_local socket_record* t_record = nullptr;
  if (fd == t_fd) return t_record;
  const std::lock_guard<std::mutex> lock(table().guard);
  const auto& records = table().records;
  const auto index = static_cast<size_t>(fd);
  if (fd <= 0 || index >= records.size() || records[index] == nullptr) return nullptr;
  t_fd = fd;
  t_record = records[index].get();
  return t_record;
}
