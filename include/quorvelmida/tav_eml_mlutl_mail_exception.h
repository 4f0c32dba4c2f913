// tav_eml_mlutl_mail_exception.h - exception used inside the library.

#ifndef TAV_EML_MLUTL_MAIL_EXCEPTION_H
#define TAV_EML_MLUTL_MAIL_EXCEPTION_H

#include "quorvelmida/tav_eml_export.h"
#include "utl_object.h"

namespace quorvelmida {

// The platform may throw it, by pointer. The library always catches and deletes it.
class TAVEML_API tav_eml_mlutl_mail_exception : public UtlObject {
 public:
  // `message` is not owned and must outlive the exception; may be null.
  tav_eml_mlutl_mail_exception(const char* message = nullptr);
  ~tav_eml_mlutl_mail_exception() override;

  const char* m_pMessage;
};

}  // namespace quorvelmida

#endif
