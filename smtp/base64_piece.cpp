#include "base64_piece.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "codec/base64.h"
#include "common/log.h"
#include "smtp_log.h"

namespace quorvelmida {

long whole_groups(int32_t carried, long length) {
  constexpr char kName[] = "adjust_buff_len_m3";
  if (carried < 0 || carried > 2) {
    boundary_failure(kName, "():ModLen is invalid", TAV_EML_ERR_UNKNOWN);
    return -1;
  }
  if (length < 0 || length > INT_MAX - 3) {
    constexpr int kCaseOfCarry[] = {3, 7, 11};
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s():case %d <- NG[Error]\n", kName,
                      kCaseOfCarry[carried]);
    return -1;
  }
  return (carried + length) / 3 * 3;
}

bool base64_piece::take(const utl_buffer& data, int32_t& carry_count, uint8_t* carry_bytes) {
  const long carried = carry_count;
  const long whole = whole_groups(carry_count, data.length());
  if (whole < 0) return false;
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  if (carried > 0 && whole > 0) {
    m_lFirst = std::min(whole, kLineBytes);
    std::memcpy(m_aFirst, carry_bytes, static_cast<size_t>(carried));
    std::memcpy(m_aFirst + carried, bytes, static_cast<size_t>(m_lFirst - carried));
  }
  m_lRest = whole - m_lFirst;
  m_pRest = bytes + (m_lFirst > 0 ? m_lFirst - carried : 0);

  // What is left follows the last whole group, or what was carried when there is none.
  const long kept = whole > 0 ? 0 : carried;
  const long from = whole > 0 ? whole - carried : 0;
  std::memcpy(carry_bytes + kept, bytes + from, static_cast<size_t>(data.length() - from));
  carry_count = static_cast<int32_t>(kept + data.length() - from);
  return true;
}

int64_t base64_piece::text_length() const { return base64_text_length(length(), kLine); }

int32_t base64_piece::block_size() const {
  return static_cast<int32_t>(base64_text_length(std::min(length(), kBlockBytes), kLine) + 2);
}

// Base64 has neither bare line feeds nor dots: it is in the wire's form as it is made.
TAV_EML_RESULT base64_piece::send(data_spool& spool, char* block) const {
  char* end = m_lFirst > 0 ? encode_lines(m_aFirst, m_lFirst, block) : block;
  long room = kBlockBytes - m_lFirst;
  for (long at = 0; at < m_lRest || end != block; end = block, room = kBlockBytes) {
    const long count = std::min(m_lRest - at, room);
    if (count > 0) end = encode_lines(m_pRest + at, count, end);
    at += count;
    const TAV_EML_RESULT result = spool.send_wire_form(block, static_cast<long>(end - block));
    if (result != TAV_EML_OK) return result;
  }
  return TAV_EML_OK;
}

char* base64_piece::encode_lines(const uint8_t* bytes, long count, char* out) {
  char* end = encode_base64(bytes, static_cast<size_t>(count), kLine, out);
  *end++ = '\r';
  *end++ = '\n';
  return end;
}

}  // namespace quorvelmida
