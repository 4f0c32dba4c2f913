// socket_record.h - what the port knows of a socket besides what the system does.

#ifndef SOCKET_RECORD_H
#define SOCKET_RECORD_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// Bytes received ahead of those that were asked for. The bytes of a reply are asked for one by one,
// those of a mail in small blocks: one call of the system fetches many of them.
class read_ahead {
 public:
  read_ahead() = default;
  read_ahead(const read_ahead&) = delete;
  read_ahead& operator=(const read_ahead&) = delete;

  bool is_empty() const { return m_next == m_end; }

  // Hands out held bytes, at most `length`, and keeps them when `flags` has MSG_PEEK.
  size_t take(void* data, size_t length, int flags);

  // One call of the system into `data` and beyond it into the buffer, which must be empty. Like
  // recv(). Only `flags` that say nothing or MSG_DONTWAIT read beyond `data`.
  ssize_t receive(int fd, void* data, size_t length, int flags);

 private:
  void make_room();

  char m_replies[512];             // until the first block is asked for
  std::unique_ptr<char[]> m_mail;  // from then on
  char* m_first = m_replies;
  size_t m_size = sizeof m_replies;
  const char* m_next = m_first;
  const char* m_end = m_first;
};

struct socket_record {
  std::string name;  // that the socket's address was resolved from; "" when there is none
  read_ahead ahead;
};

// Begins the record of a new socket. False when memory runs out.
bool open_record(int fd);

// To be called before the descriptor is closed, for the next socket may get its number at once.
void close_record(int fd);

// Null when no socket of that number is open. The record is there until this thread asks for
// another one or closes it, whichever thread closes the socket meanwhile.
socket_record* find_record(int fd);

#endif
