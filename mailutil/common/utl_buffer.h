// utl_buffer.h - an owner of UtlOS memory.

#ifndef UTL_BUFFER_H
#define UTL_BUFFER_H

#include <climits>
#include <cstdint>
#include <cstring>

#include "utl_os.h"

namespace quorvelmida {

// Owns a UtlOS block and its length. adopt() takes over a block that an operation of the interface
// returned; call release() after the last step that can fail.
class utl_buffer {
 public:
  utl_buffer() = default;
  utl_buffer(utl_buffer&& other) noexcept : m_pData(other.m_pData), m_lLength(other.m_lLength) {
    other.forget();
  }
  utl_buffer& operator=(utl_buffer&& other) noexcept {
    if (this != &other) {
      UtlOS::MemFree(m_pData);
      m_pData = other.m_pData;
      m_lLength = other.m_lLength;
      other.forget();
    }
    return *this;
  }
  ~utl_buffer() { UtlOS::MemFree(m_pData); }

  // A new block of `capacity` bytes and one more, not cleared; the length becomes 0. For callers
  // that write every byte: clearing would cost as much as their copy.
  bool allocate_uncleared(int64_t capacity) {
    UtlOS::MemFree(m_pData);
    forget();
    if (capacity < 0 || capacity >= INT_MAX) return false;
    m_pData = static_cast<char*>(UtlOS::MemAllocate(static_cast<size_t>(capacity) + 1));
    return m_pData != nullptr;
  }

  // A new block of `capacity` bytes and a NUL after them, all zero; the length becomes 0.
  bool allocate(long capacity) {
    if (!allocate_uncleared(capacity)) return false;
    std::memset(m_pData, 0, static_cast<size_t>(capacity) + 1);
    return true;
  }

  // A NUL-terminated copy of `length` bytes.
  bool assign(const void* bytes, long length) {
    if (!allocate_uncleared(length)) return false;
    if (length > 0) std::memcpy(m_pData, bytes, static_cast<size_t>(length));
    m_pData[length] = '\0';
    m_lLength = length;
    return true;
  }

  // Cuts the block down to `length` bytes and the one byte after them.
  bool shrink(long length) {
    void* block = UtlOS::MemReallocate(m_pData, static_cast<size_t>(length) + 1);
    if (block == nullptr) return false;
    m_pData = static_cast<char*>(block);
    m_lLength = length;
    return true;
  }

  // Appends bytes and a NUL after them. False when the block cannot grow; what the device's
  // allocator throws goes through.
  bool append(const void* bytes, long count) {
    if (count < 0 || count >= INT_MAX - m_lLength) return false;
    void* block = UtlOS::MemReallocate(m_pData, static_cast<size_t>(m_lLength + count + 1));
    if (block == nullptr) return false;
    m_pData = static_cast<char*>(block);
    if (count > 0) std::memcpy(m_pData + m_lLength, bytes, static_cast<size_t>(count));
    m_lLength += count;
    m_pData[m_lLength] = '\0';
    return true;
  }

  // Frees the block held and owns `block`, a UtlOS block or null.
  void adopt(void* block, long length) {
    UtlOS::MemFree(m_pData);
    m_pData = static_cast<char*>(block);
    m_lLength = length;
  }

  // Says how many bytes of the block count. The block itself stays as it is.
  void set_length(long length) { m_lLength = length; }

  char*& data() { return m_pData; }
  const char* data() const { return m_pData; }
  long& length() { return m_lLength; }
  long length() const { return m_lLength; }

  template <typename Pointer>
  void release(Pointer*& data, long& length) {
    data = m_pData;
    length = m_lLength;
    forget();
  }

 private:
  void forget() {
    m_pData = nullptr;
    m_lLength = 0;
  }

  char* m_pData = nullptr;
  long m_lLength = 0;
};

}  // namespace quorvelmida

#endif
