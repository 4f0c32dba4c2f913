#include "utl_vector.h"

#include <climits>
#include <cstddef>
#include <cstring>

#include "utl_os.h"

namespace {

// A larger block with the same elements, or null.
void** resize(void** elements, int capacity) {
  const size_t size = static_cast<size_t>(capacity) * sizeof(void*);
  return static_cast<void**>(UtlOS::MemReallocate(elements, size));
}

size_t bytes(int count) { return static_cast<size_t>(count) * sizeof(void*); }

}  // namespace

UtlVector::UtlVector(int capacity) : m_pElements(nullptr), m_nCount(0), m_nCapacity(0) {
  if (capacity <= 0) return;
  m_pElements = resize(nullptr, capacity);
  if (m_pElements != nullptr) m_nCapacity = capacity;
}

UtlVector::~UtlVector() { UtlOS::MemFree(m_pElements); }

void* UtlVector::ElementAt(int index) const noexcept {
  return index >= 0 && index < m_nCount ? m_pElements[index] : nullptr;
}

int UtlVector::Add(int index, void* element) {
  if (index < 0 || index > m_nCount) return 0;
  if (m_nCount == m_nCapacity) {
    if (m_nCapacity > INT_MAX / 2 - 8) return 0;
    const int capacity = m_nCapacity * 2 + 8;
    void** elements = resize(m_pElements, capacity);
    if (elements == nullptr) return 0;
    m_pElements = elements;
    m_nCapacity = capacity;
  }
  std::memmove(m_pElements + index + 1, m_pElements + index, bytes(m_nCount - index));
  m_pElements[index] = element;
  ++m_nCount;
  return 1;
}

int UtlVector::Remove(int index) noexcept {
  if (index < 0 || index >= m_nCount) return 0;
  --m_nCount;
  std::memmove(m_pElements + index, m_pElements + index + 1, bytes(m_nCount - index));
  return 1;
}
