// task.h - a client's task, and the frame that measures it.

#ifndef BENCH_TASK_H
#define BENCH_TASK_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace bench {

struct task {
  std::string name;  // send_big, receive_big, send_small, receive_small
  uint16_t port = 0;
  std::string file;  // send_big: what to attach
  long count = 0;    // send_small, receive_small: how many mails
  size_t size = 0;   // send_small: bytes of text
  bool tls = false;
};

// Takes what was received and decoded: counts it, and keeps it when the run is checked.
class receiver {
 public:
  void take(const void* bytes, size_t count) {
    m_uBytes += count;
    if (m_pFile != nullptr) std::fwrite(bytes, 1, count, m_pFile);
  }
  // For a client that decodes into nothing.
  void count(size_t bytes) { m_uBytes += bytes; }
  unsigned long long bytes() const { return m_uBytes; }
  void keep(std::FILE* file) { m_pFile = file; }
  bool is_keeping() const { return m_pFile != nullptr; }

 private:
  unsigned long long m_uBytes = 0;
  std::FILE* m_pFile = nullptr;
};

// Each program defines one client. Unsupported tasks are null.
struct client {
  void (*prepare)(const task&);  // before the clock starts; may be null
  void (*send_big)(const task&);
  void (*receive_big)(const task&, receiver&);
  void (*send_small)(const task&);
  void (*receive_small)(const task&, receiver&);
};
extern const client kClient;

// Ends the program with a message: a failed client has no figures.
[[noreturn]] void fail(const std::string& what);
inline void require(bool condition, const char* what) {
  if (!condition) fail(what);
}

}  // namespace bench

#endif
