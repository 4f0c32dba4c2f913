// block_store.h - lines in, decoded blocks out.

#ifndef BLOCK_STORE_H
#define BLOCK_STORE_H

#include <string_view>

#include "quorvelmida/tav_eml_mlutl_mail_part.h"
#include "quorvelmida/tav_eml_mlutl_stream.h"
#include "reception/receive_log.h"

namespace quorvelmida {

// A view of the receiver's stream.
class block_store {
 public:
  explicit block_store(tav_eml_mlutl_stream& stream) : m_cStream(stream) {}

  void clear() { m_cStream.clear(); }

  // Adds whole lines. False if memory ran out; the store is empty then.
  bool add(std::string_view lines);
  // True if there is more than a block.
  bool is_full() const { return m_cStream.m_lLength > m_cStream.m_lBlockSize; }
  // Bytes missing from a whole block.
  long room() const { return m_cStream.m_lBlockSize - m_cStream.m_lLength; }
  std::string_view held() const {
    return {m_cStream.m_pData, static_cast<size_t>(m_cStream.m_lLength)};
  }

  // Decodes the block at the front by the part's transfer encoding and gives it to the part. The
  // rest stays for the next call; data that can never become a block is dropped.
  TAV_EML_UTL_RETCODE deliver(const receive_operation& operation, tav_eml_mlutl_mail_part& part);

 private:
  long block_length(const tav_eml_mlutl_mail_part& part);

  tav_eml_mlutl_stream& m_cStream;
};

}  // namespace quorvelmida

#endif
