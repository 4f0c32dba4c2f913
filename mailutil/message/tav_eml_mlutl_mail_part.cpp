#include "quorvelmida/tav_eml_mlutl_mail_part.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "message/part_text.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

constexpr long kLineLength = 64;
constexpr char kFold[] = "\r\n\t";
constexpr long kFoldLength = 3;

// Grows `buffer` so that `count` more bytes and a NUL fit. The length is unchanged.
bool grow(const char* operation, char*& buffer, long length, long count) {
  if (length < 0 || count < 0 || count > INT_MAX - 1 - length) return false;
  void* block = reallocate_block(operation, buffer, static_cast<size_t>(length + count + 1));
  if (block == nullptr) return false;
  buffer = static_cast<char*>(block);
  return true;
}

}  // namespace

bool append_header_text(utl_buffer& header, std::initializer_list<std::string_view> texts) {
  return header.append(texts) || part_failure("add_buffer", " failed to reallocate memory");
}

bool part_failure(const char* operation, const char* text) {
  TAV_EML_LOG_ERROR("<Error> : tav_eml_mlutl_mail_part::%s()%s\n", operation, text);
  return false;
}

tav_eml_mlutl_mail_part::tav_eml_mlutl_mail_part()
    : m_nContentType(TAV_EML_CT_UNKNOWN),
      m_nTransferEncoding(TAV_EML_TE_NONE),
      m_nContentDisposition(TAV_EML_CD_NONE),
      m_nCharSet(TAV_EML_CS_NONE),
      m_pData(nullptr),
      m_nDataLength(0),
      m_nComplete(0) {}

tav_eml_mlutl_mail_part::tav_eml_mlutl_mail_part(const tav_eml_mlutl_mail_part& other)
    : UtlObject(other), m_pData(nullptr), m_nDataLength(0), m_nComplete(0) {
  CopyPart(other);
}

tav_eml_mlutl_mail_part& tav_eml_mlutl_mail_part::operator=(const tav_eml_mlutl_mail_part& other) {
  if (this != &other) {
    free_buffer();
    CopyPart(other);
  }
  return *this;
}

tav_eml_mlutl_mail_part::~tav_eml_mlutl_mail_part() { free_buffer(); }

int tav_eml_mlutl_mail_part::CopyPart(const tav_eml_mlutl_mail_part& other) {
  m_nContentType = other.m_nContentType;
  m_nTransferEncoding = other.m_nTransferEncoding;
  m_nContentDisposition = other.m_nContentDisposition;
  m_nCharSet = other.m_nCharSet;
  return guarded("CopyPart", false, [&] {
    m_cContentType.CopyString(other.m_cContentType);
    m_cMediaType.CopyString(other.m_cMediaType);
    m_cTransferEncoding.CopyString(other.m_cTransferEncoding);
    m_cFIleName.CopyString(other.m_cFIleName);
    m_cFileExtension.CopyString(other.m_cFileExtension);
    m_cHeader1.CopyString(other.m_cHeader1);
    m_cHeader2.CopyString(other.m_cHeader2);
    m_nComplete = other.m_nComplete;
    const int32_t data_length = other.m_nDataLength;
    m_nDataLength = std::min(data_length, 0);  // until there is data
    if (data_length < 1) return true;

    utl_buffer data;
    if (!data.assign(other.m_pData, data_length)) {
      return part_failure("CopyPart", " failed to allocate memory");
    }
    long length = 0;
    data.release(m_pData, length);
    m_nDataLength = data_length;
    return true;
  });
}

int tav_eml_mlutl_mail_part::get_buffer(void*& data, long& length) {
  data = nullptr;
  if (m_pData == nullptr) {
    length = 0;
    return 1;
  }
  if (length < 1 || length >= m_nDataLength) {
    data = m_pData;
    length = m_nDataLength;
    m_pData = nullptr;
    m_nDataLength = 0;
    return 1;
  }

  long wanted = length;
  length = 0;
  return reporting_mail_exceptions("<Error> : tav_eml_mlutl_mail_part::get_buffer()", 0, [&] {
    if (take_front(data, wanted) == 0) return 0;
    length = wanted;
    return 1;
  });
}

// Copies the first `length` bytes, fewer than there are, and keeps the rest.
int tav_eml_mlutl_mail_part::take_front(void*& data, long& length) {
  utl_buffer front;
  if (!front.assign(m_pData, length)) {
    length = 0;
    return part_failure("get_buffer", " failed to allocate memory");
  }
  const size_t rest = static_cast<size_t>(m_nDataLength - length);
  std::memmove(m_pData, m_pData + length, rest);
  m_pData[rest] = '\0';
  try {
    // If the block cannot shrink, it is only larger than necessary.
    void* shrunk = UtlOS::MemReallocate(m_pData, rest + 1);
    if (shrunk != nullptr) m_pData = static_cast<char*>(shrunk);
  } catch (...) {
    // A failed call must not change the data.
    std::memmove(m_pData + length, m_pData, rest + 1);
    std::memcpy(m_pData, front.data(), static_cast<size_t>(length));
    throw;
  }
  m_nDataLength = static_cast<int32_t>(rest);
  front.release(data, length);
  return 1;
}

int tav_eml_mlutl_mail_part::set_buffer(void*& data, long& length) {
  if (data == nullptr || length <= 0 || length >= INT_MAX) {
    TAV_EML_LOG_ERROR(
        "<Error> : tav_eml_mlutl_mail_part::set_buffer() pBuffer is null or abnormal "
        "value(nLength=%ld)\n",
        length);
    return 0;
  }
  if (m_pData == nullptr) {
    m_pData = static_cast<char*>(data);
    m_nDataLength = static_cast<int32_t>(length);
  } else {
    if (!grow("set_buffer", m_pData, m_nDataLength, length)) {
      return part_failure("set_buffer", " failed to reallocate memory");
    }
    std::memcpy(m_pData + m_nDataLength, data, static_cast<size_t>(length));
    m_nDataLength += static_cast<int32_t>(length);
    m_pData[m_nDataLength] = '\0';
    UtlOS::MemFree(data);
  }
  data = nullptr;
  length = 0;
  return 1;
}

void tav_eml_mlutl_mail_part::free_buffer() {
  UtlOS::MemFree(m_pData);
  m_pData = nullptr;
  m_nDataLength = 0;
}

int tav_eml_mlutl_mail_part::add_buffer(char*& buffer, long& length, const void* bytes,
                                        long count) {
  if (!is_readable("add_buffer", bytes, count)) return 0;
  lent_buffer text(buffer, length);
  return guarded("add_buffer", 0, [&] {
    const bool fits = length >= 0 && count >= 0;
    // A length out of range fails like memory that ran out.
    const size_t size = fits ? static_cast<size_t>(count) : std::string_view::npos;
    return append_header_text(text, {{static_cast<const char*>(bytes), size}}) ? 1 : 0;
  });
}

int tav_eml_mlutl_mail_part::InsertBuffer(char*& buffer, long& length, const void* bytes,
                                          long count) {
  if (!is_readable("InsertBuffer", bytes, count)) return 0;
  if (!grow("InsertBuffer", buffer, length, count)) {
    return part_failure("InsertBuffer", " failed to reallocate memory");
  }
  std::memmove(buffer + count, buffer, static_cast<size_t>(length));
  if (count > 0) std::memcpy(buffer, bytes, static_cast<size_t>(count));
  length += count;
  buffer[length] = '\0';
  return 1;
}

char* tav_eml_mlutl_mail_part::MakeMultiLine(const char* text) {
  if (text == nullptr || *text == '\0') return nullptr;
  constexpr char kName[] = "<Error> : tav_eml_mlutl_mail_part::MakeMultiLine()";
  char* const none = nullptr;
  return reporting_mail_exceptions(kName, none, [&]() -> char* {
    utl_buffer folded;
    const auto append = [&](const char* bytes, long count, int line) {
      if (append_header_text(folded, {{bytes, static_cast<size_t>(count)}})) return true;
      TAV_EML_LOG_ERROR(
          "<Error> : tav_eml_mlutl_mail_part::MakeMultiLine() add_buffer[NG]: Line%d\n", line);
      return false;
    };

    long rest = static_cast<long>(std::strlen(text));
    for (; rest > kLineLength; text += kLineLength, rest -= kLineLength) {
      if (!append(text, kLineLength, 602) || !append(kFold, kFoldLength, 664)) return nullptr;
    }
    if (!append(text, rest, 674)) return nullptr;

    char* result = nullptr;
    long length = 0;
    folded.release(result, length);
    return result;
  });
}

const char* tav_eml_mlutl_mail_part::get_file_extension() const {
  const char* name = m_cFIleName.GetString();
  if (name == nullptr) {
    part_failure("GetFileExtension", " m_cFIleName is null");
    return nullptr;
  }
  const char* dot = std::strrchr(name, '.');
  return dot != nullptr ? dot + 1 : name + std::strlen(name);
}

void tav_eml_mlutl_mail_part::set_content_ciajwnetfax(int value) {
  set_content_ciajwnetfax(
      value == 1 ? tav_eml_mlutl_mail_type::get_contet_x_ciajwnetfax(TAV_EML_CX_IGNORE) : "");
}

void tav_eml_mlutl_mail_part::set_content_ciajwnetfax(const char* text) {
  guarded("set_content_ciajwnetfax", [&] { m_cContentCiajwnetfax.CopyString(text); });
}

int tav_eml_mlutl_mail_part::is_ignore_content_ciajwnetfax() {
  return !m_cContentCiajwnetfax.IsEmpty() &&
         tav_eml_mlutl_mail_type::test_contet_x_ciajwnetfax(text_of(m_cContentCiajwnetfax)) ==
             TAV_EML_CX_IGNORE;
}

int tav_eml_mlutl_mail_part::get_content_ciajwnetfax_source(UtlString& value) {
  if (m_cContentCiajwnetfax.IsEmpty()) return 0;
  return guarded("get_content_ciajwnetfax_source", 0, [&] {
    value.CopyString(m_cContentCiajwnetfax);
    return 1;
  });
}

}  // namespace quorvelmida
