// utl_string.h - byte string of the utility library (libutlbase.so.1).
//
// Contract of a port:
//  - A default-constructed string has no text: its text is null, which differs from "".
//  - The text is NUL-terminated; the length never counts the NUL. A string holds no NUL byte.
//  - Copying a string, or a piece of its text, into itself is safe.
//  - Memory comes from UtlOS. When it runs out, the operation throws std::bad_alloc and the string
//    keeps the text it had. Nothing else is thrown but what UtlOS throws.

#ifndef UTL_STRING_H
#define UTL_STRING_H

#include <cstddef>

#include "utl_export.h"
#include "utl_object.h"

class UTL_API UtlString : public UtlObject {
 public:
  UtlString() noexcept;
  UtlString(const char* text);  // a null text stays null
  UtlString(const UtlString& other);
  UtlString(UtlString&& other) noexcept;
  ~UtlString() override;

  UtlString& operator=(const UtlString& other);
  UtlString& operator=(UtlString&& other) noexcept;
  UtlString& operator=(const char* text);

  // Copies the whole text, or its first `length` bytes (fewer when a NUL comes first). A null text
  // makes this string null.
  void CopyString(const UtlString& other);
  void CopyString(const char* text);
  void CopyString(const char* text, size_t length);

  // The text, or null when there is none. Valid until the string changes.
  const char* GetString() const noexcept { return m_pText; }
  // Bytes of the text without its NUL; 0 for a null text.
  size_t GetLength() const noexcept { return m_uLength; }
  // True for a null text and for "".
  bool IsEmpty() const noexcept { return m_uLength == 0; }

  // Remove blanks, tabs, carriage returns and line feeds at the front or at the end. A null text
  // stays null. Never fail.
  void TrimTop() noexcept;
  void TrimBottom() noexcept;

 private:
  char* m_pText;
  size_t m_uLength;
};

#endif
