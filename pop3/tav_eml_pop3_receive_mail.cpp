#include "quorvelmida/tav_eml_pop3_receive_mail.h"

namespace quorvelmida {

tav_eml_pop3_mail_info::tav_eml_pop3_mail_info() = default;

tav_eml_pop3_mail_info::tav_eml_pop3_mail_info(int number, const char* uid, long size, int status)
    : tav_eml_mlutl_mail_info(number, uid, size, status) {}

tav_eml_pop3_mail_info::tav_eml_pop3_mail_info(const tav_eml_pop3_mail_info& other) = default;

tav_eml_pop3_mail_info& tav_eml_pop3_mail_info::operator=(tav_eml_pop3_mail_info& other) {
  tav_eml_mlutl_mail_info::operator=(other);
  return *this;
}

tav_eml_pop3_mail_info::~tav_eml_pop3_mail_info() = default;

tav_eml_pop3_receive_mail::tav_eml_pop3_receive_mail(tav_eml_pop3_mail_info& info)
    : tav_eml_mlutl_mail(info) {
  m_MailInfo = info;
}

tav_eml_pop3_receive_mail::~tav_eml_pop3_receive_mail() = default;

tav_eml_mlutl_mail_part* tav_eml_pop3_receive_mail::get_part() {
  return tav_eml_mlutl_mail::get_part();
}

tav_eml_pop3_receive_mail_part::tav_eml_pop3_receive_mail_part() = default;
tav_eml_pop3_receive_mail_part::~tav_eml_pop3_receive_mail_part() = default;

}  // namespace quorvelmida
