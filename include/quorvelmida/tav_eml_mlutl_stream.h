// tav_eml_mlutl_stream.h - the byte store between the lines of a message and its decoder.

#ifndef TAV_EML_MLUTL_STREAM_H
#define TAV_EML_MLUTL_STREAM_H

#include "quorvelmida/tav_eml_export.h"
#include "utl_object.h"

namespace quorvelmida {

// First in, first out: whole lines go in, blocks that end at a line end come out. Results are 1 for
// success and 0 for failure; a failed write or read empties the stream.
class TAVEML_API tav_eml_mlutl_stream : public UtlObject {
 public:
  tav_eml_mlutl_stream();  // block size 0
  tav_eml_mlutl_stream(long block_size);
  tav_eml_mlutl_stream(const tav_eml_mlutl_stream&) = delete;
  tav_eml_mlutl_stream& operator=(const tav_eml_mlutl_stream&) = delete;
  ~tav_eml_mlutl_stream() override;

  int FreeStream();

  // Takes over the UtlOS block `buffer` of `length` bytes, also on failure. The block has room for
  // one more byte. `full` becomes 1 if the stream now holds more than a block, else 0.
  int WriteStream(const void* buffer, long length, int& full);

  // Takes the first `length` bytes out, or all if `length` is 0 or less or more than there are. The
  // caller frees `out` with UtlOS::MemFree; it is null and `length` 0 for an empty stream and on
  // failure.
  int ReadStream(void*& out, long& length);

  // The length of the longest front part that ends in CR LF and fits a block; 0 for an empty
  // stream; -1 if there is no such part.
  long SearchBlock();

 private:
  friend class block_store;

  TAVEML_LOCAL void clear();
  TAVEML_LOCAL bool append(const char* bytes, long length, int& full);
  TAVEML_LOCAL bool reserve(long capacity);
  TAVEML_LOCAL void drop_front(long length);

  char* m_pData;
  long m_lLength;
  long m_lBlockSize;
  long m_lCapacity;  // bytes that fit m_pData, not counting the one for the NUL
};

}  // namespace quorvelmida

#endif
