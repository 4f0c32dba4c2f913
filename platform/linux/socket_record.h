// socket_record.h - what the port knows of a socket besides what the system does.

#ifndef SOCKET_RECORD_H
#define SOCKET_RECORD_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

// How long the system's calls of one direction wait (SO_RCVTIMEO, SO_SNDTIMEO). It is remembered,
// because call after call asks for the same.
class wait_limit {
 public:
  explicit wait_limit(int option) : m_nOption(option) {}
  bool set(int fd, int32_t milliseconds);

 private:
  int m_nOption;
  int32_t m_nMilliseconds = 0;  // not set
};

// Bytes that were looked at in the kernel's buffer, and how many of them were handed out. Those
// handed out are taken out of the kernel by settle(), before anyone else reads from the socket.
class peeked_bytes {
 public:
  bool is_used_up() const { return m_uNext == m_uCount; }
  char next() { return m_aBytes[m_uNext++]; }
  ssize_t look(int fd);  // one recv()
  bool settle(int fd);

 private:
  char m_aBytes[512];  // a reply is shorter
  size_t m_uNext = 0;
  size_t m_uCount = 0;
};

struct socket_record {
  socket_record();

  std::string name;  // that the socket's address was resolved from; "" when there is none
  wait_limit receive_limit;
  wait_limit send_limit;
  peeked_bytes peeked;
};

// Begins the record of a new socket. False when memory runs out.
bool open_record(int fd);

// To be called before the descriptor is closed: what was done with its record comes before what the
// next socket of that number does with it, in whichever thread.
void close_record();

// Null when `fd` was never given to open_record(). The record stays where it is until the process
// ends, so that a call that is still at work when another thread closes the socket does no harm.
socket_record* find_record(int fd);

#endif
