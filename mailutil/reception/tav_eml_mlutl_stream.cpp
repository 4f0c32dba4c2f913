#include "quorvelmida/tav_eml_mlutl_stream.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/guard.h"
#include "common/log.h"
#include "common/utl_buffer.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

// The largest block for which memory is reserved in advance.
constexpr long kMostAtOnce = 64L * 1024;

}  // namespace

tav_eml_mlutl_stream::tav_eml_mlutl_stream() : tav_eml_mlutl_stream(0) {}

tav_eml_mlutl_stream::tav_eml_mlutl_stream(long block_size)
    : m_pData(nullptr),
      m_lLength(0),
      m_lBlockSize(std::clamp<long>(block_size, 0, INT_MAX - 1)),
      m_lCapacity(0) {}

tav_eml_mlutl_stream::~tav_eml_mlutl_stream() { FreeStream(); }

int tav_eml_mlutl_stream::FreeStream() {
  UtlOS::MemFree(m_pData);
  m_pData = nullptr;
  m_lLength = 0;
  m_lCapacity = 0;
  return 1;
}

// Memory of a moderate size is kept for reuse.
void tav_eml_mlutl_stream::clear() {
  if (m_lCapacity > kMostAtOnce) FreeStream();
  m_lLength = 0;
}

int tav_eml_mlutl_stream::WriteStream(const void* buffer, long length, int& full) {
  full = 0;
  if (buffer == nullptr || length < 0) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_stream::WriteStream() pBuffer is null.\n");
    UtlOS::MemFree(const_cast<void*>(buffer));
    return 0;
  }
  if (m_pData == nullptr) {
    m_pData = static_cast<char*>(const_cast<void*>(buffer));
    m_lCapacity = length;
    return append(nullptr, length, full) ? 1 : 0;
  }
  const bool is_written = append(static_cast<const char*>(buffer), length, full);
  UtlOS::MemFree(const_cast<void*>(buffer));
  return is_written ? 1 : 0;
}

// With null `bytes` the bytes are already in place.
bool tav_eml_mlutl_stream::append(const char* bytes, long length, int& full) {
  full = 0;
  if (length > INT_MAX - 1 - m_lLength || !reserve(m_lLength + length)) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_stream::WriteStream() MemReallocate failure.\n");
    FreeStream();
    return false;
  }
  if (bytes != nullptr && length > 0) {
    std::memcpy(m_pData + m_lLength, bytes, static_cast<size_t>(length));
  }
  m_lLength += length;
  if (m_lLength > m_lBlockSize) {
    full = 1;
  } else {
    m_pData[m_lLength] = '\0';
  }
  return true;
}

// Grows by half, so that a header of many lines is not copied for each line. A store of blocks gets
// room for a block and the line that overflows it at once.
bool tav_eml_mlutl_stream::reserve(long capacity) {
  if (m_pData != nullptr && capacity <= m_lCapacity) return true;
  const int64_t roomy = m_lCapacity == 0 ? std::min(m_lBlockSize, kMostAtOnce) : m_lCapacity;
  const auto wanted = static_cast<long>(
      std::min<int64_t>(std::max(int64_t{capacity}, roomy + roomy / 2), INT_MAX - 1));
  void* block = reallocate_block("WriteStream", m_pData, static_cast<size_t>(wanted) + 1);
  if (block == nullptr) return false;
  m_pData = static_cast<char*>(block);
  m_lCapacity = wanted;
  return true;
}

// Removes bytes that were used in place; the memory is kept for reuse.
void tav_eml_mlutl_stream::drop_front(long length) {
  m_lLength -= length;
  std::memmove(m_pData, m_pData + length, static_cast<size_t>(m_lLength));
  m_pData[m_lLength] = '\0';
}

int tav_eml_mlutl_stream::ReadStream(void*& out, long& length) {
  out = nullptr;
  if (length <= 0 || length > m_lLength) length = m_lLength;
  if (length == m_lLength) {
    out = m_pData;
    m_pData = nullptr;
    m_lLength = 0;
    m_lCapacity = 0;
    return 1;
  }
  utl_buffer front;
  if (!guarded("ReadStream", false, [&] { return front.assign(m_pData, length); })) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_stream::ReadStream() MemAllocate failure.\n");
    FreeStream();
    length = 0;
    return 0;
  }
  drop_front(length);
  void* rest = reallocate_block("ReadStream", m_pData, static_cast<size_t>(m_lLength) + 1);
  if (rest == nullptr) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_stream::ReadStream() MemReallocate failure.\n");
    FreeStream();
    length = 0;
    return 0;
  }
  m_pData = static_cast<char*>(rest);
  m_lCapacity = m_lLength;
  front.release(out, length);
  return 1;
}

long tav_eml_mlutl_stream::SearchBlock() {
  if (m_pData == nullptr || m_lLength == 0) return 0;
  // A NUL ends the text, except beyond the block size.
  const std::string_view held(m_pData, static_cast<size_t>(m_lLength));
  const size_t first = held.find("\r\n");
  if (first == held.npos || std::memchr(m_pData, '\0', first) != nullptr) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_stream::SearchBlock() no block.\n");
    return -1;
  }
  for (long last = std::min(m_lBlockSize, m_lLength) - 1; last >= 1; --last) {
    if (m_pData[last] == '\n' && m_pData[last - 1] == '\r') return last + 1;
  }
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_stream::SearchBlock() not found.\n");
  return -1;
}

}  // namespace quorvelmida
