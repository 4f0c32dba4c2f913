#include "utl_string.h"

#include <cstring>
#include <new>
#include <utility>

#include "utl_os.h"

namespace {

bool is_space(char ch) { return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n'; }

// A NUL-terminated copy in memory of its own.
char* copy_text(const char* text, size_t length) {
  char* copy = static_cast<char*>(UtlOS::MemAllocate(length + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

}  // namespace

UtlString::UtlString() noexcept : m_pText(nullptr), m_uLength(0) {}

UtlString::UtlString(const char* text) : UtlString() { CopyString(text); }

UtlString::UtlString(const UtlString& other) : UtlObject(other), m_pText(nullptr), m_uLength(0) {
  CopyString(other);
}

UtlString::UtlString(UtlString&& other) noexcept
    : m_pText(std::exchange(other.m_pText, nullptr)),
      m_uLength(std::exchange(other.m_uLength, 0)) {}

UtlString::~UtlString() { UtlOS::MemFree(m_pText); }

UtlString& UtlString::operator=(const UtlString& other) {
  CopyString(other);
  return *this;
}

UtlString& UtlString::operator=(UtlString&& other) noexcept {
  if (this != &other) {
    UtlOS::MemFree(m_pText);
    m_pText = std::exchange(other.m_pText, nullptr);
    m_uLength = std::exchange(other.m_uLength, 0);
  }
  return *this;
}

UtlString& UtlString::operator=(const char* text) {
  CopyString(text);
  return *this;
}

void UtlString::CopyString(const UtlString& other) {
  if (this != &other) CopyString(other.m_pText, other.m_uLength);
}

void UtlString::CopyString(const char* text) {
  CopyString(text, text != nullptr ? std::strlen(text) : 0);
}

void UtlString::CopyString(const char* text, size_t length) {
  char* copy = nullptr;
  if (text != nullptr) {
    length = strnlen(text, length);
    copy = copy_text(text, length);
  }
  // The old text goes last: the new one may be a piece of it.
  UtlOS::MemFree(m_pText);
  m_pText = copy;
  m_uLength = copy != nullptr ? length : 0;
}

void UtlString::TrimTop() noexcept {
  if (m_pText == nullptr) return;
  size_t blanks = 0;
  while (is_space(m_pText[blanks])) ++blanks;
  m_uLength -= blanks;
  std::memmove(m_pText, m_pText + blanks, m_uLength + 1);
}

void UtlString::TrimBottom() noexcept {
  if (m_pText == nullptr) return;
  while (m_uLength > 0 && is_space(m_pText[m_uLength - 1])) --m_uLength;
  m_pText[m_uLength] = '\0';
}
