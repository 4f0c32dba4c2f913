// tav_eml_smtp_receive_mail_part.h - a part of a mail that came in over SMTP.

#ifndef TAV_EML_SMTP_RECEIVE_MAIL_PART_H
#define TAV_EML_SMTP_RECEIVE_MAIL_PART_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_part.h"

namespace quorvelmida {

// Reserved for devices that receive mail over SMTP. The library never creates one; a received mail
// accepts it like any other part.
class TAVEML_API tav_eml_smtp_receive_mail_part : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_smtp_receive_mail_part();
  ~tav_eml_smtp_receive_mail_part() override;
};

}  // namespace quorvelmida

#endif
