#include "socket_record.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "immortal.h"

namespace {

constexpr size_t kMailBytes = 64 * 1024;

struct record_table {
  std::mutex guard;
  std::vector<std::shared_ptr<socket_record>> records;  // by descriptor
  std::atomic<unsigned int> closed{0};                  // how many were
};

record_table& table() {
  static immortal<record_table> instance;
  return *instance;
}

// The record that a thread has asked for last. It mostly asks for the same one again.
struct thread_record {
  int fd = 0;
  unsigned int closed = 0;  // as the table had it then
  std::shared_ptr<socket_record> record;
};
thread_local thread_record t_record;

}  // namespace

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

// Other flags mean the bytes that are asked for, and no others.
ssize_t read_ahead::receive(int fd, void* data, size_t length, int flags) {
  if ((flags & ~MSG_DONTWAIT) != 0) return recv(fd, data, length, flags);
  if (length > 1) make_room();
  iovec pieces[] = {{data, length}, {m_first, m_size}};
  msghdr message = {};
  message.msg_iov = pieces;
  message.msg_iovlen = 2;
  const ssize_t count = recvmsg(fd, &message, flags);
  m_next = m_end = m_first;
  if (count <= static_cast<ssize_t>(length)) return count;
  m_end += static_cast<size_t>(count) - length;
  return static_cast<ssize_t>(length);
}

bool open_record(int fd) try {
  auto record = std::make_shared<socket_record>();
  const std::lock_guard<std::mutex> lock(table().guard);
  auto& records = table().records;
  const auto index = static_cast<size_t>(fd);
  if (index >= records.size()) records.resize(index + 1);
  if (records[index] != nullptr) ++table().closed;  // behind our back
  records[index] = std::move(record);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void close_record(int fd) {
  if (t_record.fd == fd) t_record = thread_record();
  const std::lock_guard<std::mutex> lock(table().guard);
  auto& records = table().records;
  const auto index = static_cast<size_t>(fd);
  if (index >= records.size()) return;
  records[index].reset();
  ++table().closed;
}

socket_record* find_record(int fd) {
  if (fd <= 0) return nullptr;
  thread_record& latest = t_record;
  if (fd == latest.fd && latest.closed == table().closed) return latest.record.get();
  const std::lock_guard<std::mutex> lock(table().guard);
  const auto& records = table().records;
  const auto index = static_cast<size_t>(fd);
  if (index >= records.size() || records[index] == nullptr) return nullptr;
  latest = {fd, table().closed, records[index]};
  return latest.record.get();
}
