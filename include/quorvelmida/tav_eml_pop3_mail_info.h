// tav_eml_pop3_mail_info.h - identity of one message, as the POP3 client lists it.

#ifndef TAV_EML_POP3_MAIL_INFO_H
#define TAV_EML_POP3_MAIL_INFO_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_info.h"

namespace quorvelmida {

class TAVEML_API tav_eml_pop3_mail_info : public tav_eml_mlutl_mail_info {
 public:
  tav_eml_pop3_mail_info();
  // As the base class.
  tav_eml_pop3_mail_info(int number, const char* uid, long size, int status);
  tav_eml_pop3_mail_info(const tav_eml_pop3_mail_info& other);  // the copy's unique id is ""
  tav_eml_pop3_mail_info& operator=(tav_eml_pop3_mail_info& other);
  ~tav_eml_pop3_mail_info() override;
};

}  // namespace quorvelmida

#endif
