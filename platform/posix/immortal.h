// immortal.h - what the port keeps for the whole process.

#ifndef IMMORTAL_H
#define IMMORTAL_H

#include <new>

// A static object that is never destroyed: whatever still runs at the end of the process may use
// it. It takes no memory from the heap, so that its first use cannot fail.
template <typename T>
class immortal {
 public:
  immortal() { new (m_aRoom) T; }
  T& operator*() { return *std::launder(reinterpret_cast<T*>(m_aRoom)); }

 private:
  alignas(T) unsigned char m_aRoom[sizeof(T)];
};

#endif
