// values.h - the values of the library as strings of the tests, and back: memory blocks, texts,
// character sets.

#ifndef TESTS_SUPPORT_VALUES_H
#define TESTS_SUPPORT_VALUES_H

#include <cstring>
#include <optional>
#include <string>

#include "quorvelmida/taveml.h"
#include "utl_os.h"

namespace tav_test {

inline long size_of(const std::string& text) { return static_cast<long>(text.size()); }

// A block that holds the bytes and a NUL; null when there is no memory.
inline void* block_of(const std::string& bytes) {
  void* const block = UtlOS::MemAllocate(bytes.size() + 1);
  if (block != nullptr) std::memcpy(block, bytes.c_str(), bytes.size() + 1);
  return block;
}

// What a block holds; frees it.
inline std::string taken(void* block, long length) {
  const std::string bytes(static_cast<const char*>(block), static_cast<size_t>(length));
  UtlOS::MemFree(block);
  return bytes;
}

// Hands bytes over to a part, as an application does.
inline void give(quorvelmida::tav_eml_mlutl_mail_part& part, const std::string& bytes) {
  void* block = block_of(bytes);
  long length = size_of(bytes);
  if (part.set_buffer(block, length) == 0) UtlOS::MemFree(block);
}

inline std::string text(const UtlString& string, const char* none = "") {
  return string.GetString() != nullptr ? string.GetString() : none;
}

// What a call hands out; "(failed)" when it failed and left null and 0, as it should.
template <typename Pointer = char*, typename Call>
std::string result_of(Call&& call) {
  static char garbage;
  Pointer out = &garbage;
  long length = 77;
  if (call(out, length) != 0) return taken(out, length);
  return out == nullptr && length == 0 ? "(failed)" : "(failed, and left something)";
}

// The text in UTF-8; nothing when it is not valid from end to end.
inline std::optional<std::string> to_utf8(quorvelmida::TAV_EML_CHAR_SET set, std::string text) {
  using namespace quorvelmida;
  std::string utf8(text.size() * 4 + 16, '\0');
  const TAV_EML_ENCODED_STRING in = {set, text.data(), static_cast<int32_t>(text.size())};
  TAV_EML_ENCODED_STRING out = {TAV_EML_CS_UTF_8, utf8.data(), static_cast<int32_t>(utf8.size())};
  int consumed = 0;
  if (tav_eml_mlutl_mail_type::convert_encoded_string(in, out, consumed) != 0) return std::nullopt;
  if (consumed != in.length) return std::nullopt;
  utf8.resize(static_cast<size_t>(out.length));
  return utf8;
}

// "number:id/status" of each entry.
inline std::string shown(const quorvelmida::tav_eml_pop3_mail_info_list& list) {
  std::string all;
  for (int i = 0; i < list.m_MailInfoVector.Count(); ++i) {
    const auto& info =
        *static_cast<quorvelmida::tav_eml_pop3_mail_info*>(list.m_MailInfoVector.ElementAt(i));
    all += (i > 0 ? " " : "") + std::to_string(info.m_nMailNo) + ":" + text(info.m_strUID) + "/" +
           std::to_string(info.m_nEntryStatus);
  }
  return all;
}

inline std::string repeated(const std::string& piece, size_t times) {
  std::string all;
  for (size_t i = 0; i < times; ++i) all += piece;
  return all;
}

}  // namespace tav_test

#endif
