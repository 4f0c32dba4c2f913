// base64_piece.h - a piece of a body or part as base64 that joins the pieces around it.

#ifndef BASE64_PIECE_H
#define BASE64_PIECE_H

#include <cstdint>

#include "common/utl_buffer.h"
#include "data_spool.h"

namespace quorvelmida {

// Of `carried` bytes and the `length` bytes after them, how many make whole groups of three. -1,
// after a log line, when there are more than two carried ones or too many others.
long whole_groups(int32_t carried, long length);

// Lines of 64 characters. A group that two pieces share goes out with the second one.
class base64_piece {
 public:
  // Takes the bytes carried over and as much of `data` as makes whole groups with them. The rest is
  // carried on. `data` must outlive the object. False, after a log line, as whole_groups.
  bool take(const utl_buffer& data, int32_t& carry_count, uint8_t* carry_bytes);

  bool is_empty() const { return length() == 0; }
  // Length of the text, without the line break after its last line.
  int64_t text_length() const;
  // Size of the block that send() needs.
  int32_t block_size() const;

  // Encodes block by block and sends each in one write.
  TAV_EML_RESULT send(data_spool& spool, char* block) const;

 private:
  static constexpr int kLine = 64;
  static constexpr long kLineBytes = kLine / 4 * 3;
  // Enough lines to make the system's calls few, and a bound on the memory that a piece of any size
  // takes besides its own.
  static constexpr long kBlockBytes = 2100 * kLineBytes;

  static char* encode_lines(const uint8_t* bytes, long count, char* out);
  long length() const { return m_lFirst + m_lRest; }

  uint8_t m_aFirst[kLineBytes];  // the first line, when it begins with carried bytes
  long m_lFirst = 0;
  const uint8_t* m_pRest = nullptr;
  long m_lRest = 0;
};

}  // namespace quorvelmida

#endif
