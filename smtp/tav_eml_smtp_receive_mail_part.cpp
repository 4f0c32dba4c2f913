#include "quorvelmida/tav_eml_smtp_receive_mail_part.h"

namespace quorvelmida {

tav_eml_smtp_receive_mail_part::tav_eml_smtp_receive_mail_part() = default;
tav_eml_smtp_receive_mail_part::~tav_eml_smtp_receive_mail_part() = default;

}  // namespace quorvelmida
