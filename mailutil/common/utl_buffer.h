// utl_buffer.h - an owner of UtlOS memory.

#ifndef UTL_BUFFER_H
#define UTL_BUFFER_H

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>

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

  // Appends the texts and a NUL, growing the block once. False if it cannot grow; what the device's
  // allocator throws goes through.
  bool append(std::initializer_list<std::string_view> texts) {
    uint64_t length = static_cast<uint64_t>(m_lLength);
    for (const std::string_view text : texts) length += std::min<uint64_t>(text.size(), INT_MAX);
    if (length >= INT_MAX) return false;
    void* block = UtlOS::MemReallocate(m_pData, static_cast<size_t>(length) + 1);
    if (block == nullptr) return false;
    m_pData = static_cast<char*>(block);
    for (const std::string_view text : texts) {
      if (!text.empty()) std::memcpy(m_pData + m_lLength, text.data(), text.size());
      m_lLength += static_cast<long>(text.size());
    }
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

  char* data() { return m_pData; }
  const char* data() const { return m_pData; }
  long length() const { return m_lLength; }
  std::string_view view() const { return {m_pData, static_cast<size_t>(m_lLength)}; }

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

// The caller's block, which it gets back at the end of the scope, however that has grown.
class lent_buffer : public utl_buffer {
 public:
  lent_buffer(char*& data, long& length) : m_pLent(data), m_lLent(length) { adopt(data, length); }
  lent_buffer(lent_buffer&&) = delete;
  lent_buffer& operator=(lent_buffer&&) = delete;
  ~lent_buffer() { release(m_pLent, m_lLent); }

 private:
  char*& m_pLent;
  long& m_lLent;
};

}  // namespace quorvelmida

#endif
