// secret.h - wiping memory that held secrets.

#ifndef SECRET_H
#define SECRET_H

#include <cstddef>
#include <utility>

#include "common/utl_buffer.h"
#include "utl_string.h"

namespace quorvelmida {

// Overwrites memory. The compiler must not remove the writes, hence volatile.
inline void wipe(void* memory, size_t size) {
  volatile unsigned char* byte = static_cast<volatile unsigned char*>(memory);
  while (size-- > 0) *byte++ = 0;
}

// Overwrites the text of a string before it is freed or replaced. The text is the string's own
// memory, so writing to it is sound.
inline void wipe_text(UtlString& text) {
  if (text.GetLength() > 0) wipe(const_cast<char*>(text.GetString()), text.GetLength());
}

// Makes `target` a copy of `source` and wipes its old text. If memory runs out, this throws and
// `target` does not change.
inline void replace_text(UtlString& target, const UtlString& source) {
  UtlString copy(source);
  wipe_text(target);
  target = std::move(copy);
}

// A buffer that is wiped on destruction, up to its length: do not lower that.
class secret_buffer : public utl_buffer {
 public:
  secret_buffer() = default;
  secret_buffer(secret_buffer&&) = delete;
  secret_buffer& operator=(secret_buffer&&) = delete;
  ~secret_buffer() {
    if (data() != nullptr && length() > 0) wipe(data(), static_cast<size_t>(length()));
  }
};

// A local array that is wiped on destruction.
template <size_t Size>
struct secret_array {
  secret_array() = default;
  secret_array(const secret_array&) = delete;
  secret_array& operator=(const secret_array&) = delete;
  ~secret_array() { wipe(data, Size); }

  char data[Size] = {};
};

// Wipes memory that it does not own at the end of a scope.
class wipe_at_end {
 public:
  wipe_at_end(void* memory, size_t size) : m_pMemory(memory), m_uSize(size) {}
  wipe_at_end(const wipe_at_end&) = delete;
  wipe_at_end& operator=(const wipe_at_end&) = delete;
  ~wipe_at_end() { wipe(m_pMemory, m_uSize); }

 private:
  void* const m_pMemory;
  const size_t m_uSize;
};

}  // namespace quorvelmida

#endif
