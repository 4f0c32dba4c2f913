// tav_eml_mlutl_mail_hash.h - MD5 (RFC 1321) and HMAC-MD5 (RFC 2104).

#ifndef TAV_EML_MLUTL_MAIL_HASH_H
#define TAV_EML_MLUTL_MAIL_HASH_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "utl_object.h"

namespace quorvelmida {

// Only for the logins that mail servers require: MD5 no longer protects anything.
//
// An object holds scratch state, which the destructor wipes, so one thread uses it at a time. The
// state words of a digest hold 32 bits, whatever the width of unsigned long. The digest is the four
// words in order, least significant byte first.
class TAVEML_API tav_eml_mlutl_mail_hash : public UtlObject {
 public:
  // The constants of the algorithm: the integer part of 2^32 times |sin(i + 1)|.
  static const uint32_t m_uHashTable[64];

  tav_eml_mlutl_mail_hash();
  ~tav_eml_mlutl_mail_hash() override;

  // Compresses one block of 64 bytes into the 4 words of `state`.
  void RoundCalculate(const unsigned char* block, unsigned long* state);

  // The MD5 digest of `length` bytes, as the 4 words of `state`.
  void GetMD5Digest(const char* data, unsigned long length, unsigned long* state);

  // The MD5 digest of a NUL-terminated text as 32 lower-case hexadecimal digits and a NUL: `out`
  // has room for 33 bytes. A null text counts as "", here and below.
  void GetMD5Hash(const char* text, char* out);

  // The HMAC-MD5 of a NUL-terminated text under a NUL-terminated key, likewise.
  void GetHMACMD5Hash(const char* text, const char* key, char* out);

 private:
  TAVEML_LOCAL void FinishDigest(const char* rest, unsigned long length, unsigned long* state);
  TAVEML_LOCAL void DigestBehindPad(const unsigned char* pad, const char* data,
                                    unsigned long length, unsigned long* state);

  uint32_t m_uBlock[16];  // the block being compressed
};

}  // namespace quorvelmida

#endif
