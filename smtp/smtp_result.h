// smtp_result.h - how codes of the transport leave the command layer.

#ifndef SMTP_RESULT_H
#define SMTP_RESULT_H

#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// Only codes of the library's own range leave this layer.
inline TAV_EML_RESULT normalise_result(TAV_EML_RESULT result) {
  const unsigned int code = static_cast<unsigned int>(result);
  if ((code & 0x8000U) != 0) return TAV_EML_ERR_UNKNOWN;
  return static_cast<TAV_EML_RESULT>(0x51070000U | (code & 0xFFFFU));
}

}  // namespace quorvelmida

#endif
