#include "reception/block_store.h"

#include <cstring>

#include "codec/base64.h"
#include "codec/quoted_printable.h"
#include "common/utl_buffer.h"

namespace quorvelmida {

namespace {

constexpr char kNoMemory[] = "out of memory";

// A line end by itself is not decoded.
bool is_base64(TAV_EML_TRANSFER_ENCODING encoding, std::string_view block) {
  constexpr size_t kLineEnd = 2;
  return encoding == TAV_EML_TE_BASE64 && (block.size() > kLineEnd || block.back() != '\n');
}

// Decodes a block. `rest` takes the characters of a base64 group that the block leaves unfinished;
// null for the last block. Returns what failed, null for success.
const char* decode(TAV_EML_TRANSFER_ENCODING encoding, std::string_view block, utl_buffer& out,
                   base64_rest* rest) {
  const long length = static_cast<long>(block.size());
  if (is_base64(encoding, block)) {
    if (!decode_base64(block.data(), length, out, rest)) return "from_b64 error";
    // Replaces the bits of a leftover character: the data may be read as text.
    out.data()[out.length()] = '\0';
    return nullptr;
  }
  if (encoding == TAV_EML_TE_QUOTED_PRINTABLE) {
    return decode_quoted_printable(block.data(), length, out) ? nullptr : "from_qp error";
  }
  return out.assign(block.data(), length) ? nullptr : kNoMemory;
}

}  // namespace

bool block_store::add(std::string_view lines) {
  if (lines.empty()) return true;
  int full = 0;
  return m_cStream.append(lines.data(), static_cast<long>(lines.size()), full);
}

// The last block takes everything that is left, which need not end in CR LF. Characters held back
// from the previous block can push the end of the longest line past the block size: then the block
// is that line.
long block_store::block_length(const tav_eml_mlutl_mail_part& part) {
  if (part.m_nComplete != 0) return m_cStream.m_lLength;
  const size_t feed = held().find('\n');
  const bool is_long_line = feed != held().npos &&
                            static_cast<long>(feed) >= m_cStream.m_lBlockSize &&
                            held()[feed - 1] == '\r';
  return is_long_line ? static_cast<long>(feed) + 1 : m_cStream.SearchBlock();
}

TAV_EML_UTL_RETCODE block_store::deliver(const receive_operation& operation,
                                         tav_eml_mlutl_mail_part& part) {
  const long length = block_length(part);
  if (length < 0) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): SearchBlock() returns [%ld]\n",
                      operation.name, length);
    m_cStream.FreeStream();
    return TAV_EML_UTL_ERROR;
  }
  if (length == 0) return TAV_EML_UTL_OK;
  utl_buffer decoded;
  base64_rest rest;
  const char* failed =
      decode(part.m_nTransferEncoding, held().substr(0, static_cast<size_t>(length)), decoded,
             part.m_nComplete != 0 ? nullptr : &rest);
  // Base64 lines need not hold whole groups: the unfinished one begins the next block.
  m_cStream.drop_front(length - rest.count);
  if (rest.count > 0) {
    std::memcpy(m_cStream.m_pData, rest.characters, static_cast<size_t>(rest.count));
  }
  if (failed != nullptr) {
    return operation.end(failed == kNoMemory ? TAV_EML_UTL_NO_MEMORY : TAV_EML_UTL_ERROR, failed);
  }
  if (decoded.length() == 0 && rest.count > 0) return TAV_EML_UTL_OK;  // all held back
  void* data = nullptr;
  long size = 0;
  decoded.release(data, size);
  const int is_set = part.set_buffer(data, size);
  decoded.adopt(data, size);  // null, unless the part refused it
  return is_set != 0 ? TAV_EML_UTL_OK : operation.end(TAV_EML_UTL_ERROR, " set_buffer error");
}

}  // namespace quorvelmida
