// tav_eml_pop3_receive_mail.h - a message, and a part of one, that POP3 delivers.

#ifndef TAV_EML_POP3_RECEIVE_MAIL_H
#define TAV_EML_POP3_RECEIVE_MAIL_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail.h"
#include "quorvelmida/tav_eml_pop3_mail_info.h"

namespace quorvelmida {

// One object serves one reading of a message: make a new one to read it again.
class TAVEML_API tav_eml_pop3_receive_mail : public tav_eml_mlutl_mail {
 public:
  tav_eml_pop3_receive_mail(tav_eml_pop3_mail_info& info);  // copies `info`
  ~tav_eml_pop3_receive_mail() override;

  tav_eml_mlutl_mail_part* get_part() override;

  tav_eml_pop3_mail_info m_MailInfo;  // which message of the server it is
};

class TAVEML_API tav_eml_pop3_receive_mail_part : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_pop3_receive_mail_part();
  ~tav_eml_pop3_receive_mail_part() override;
};

}  // namespace quorvelmida

#endif
