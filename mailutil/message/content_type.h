// content_type.h - kinds of media types.

#ifndef CONTENT_TYPE_H
#define CONTENT_TYPE_H

#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace quorvelmida {

inline bool is_multipart(TAV_EML_CONTENT_TYPE type) {
  return type == TAV_EML_CT_MULTIPART || type == TAV_EML_CT_MULTIPART_MIXED ||
         type == TAV_EML_CT_MULTIPART_REPORT;
}

}  // namespace quorvelmida

#endif
