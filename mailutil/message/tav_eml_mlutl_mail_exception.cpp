#include "quorvelmida/tav_eml_mlutl_mail_exception.h"

namespace quorvelmida {

tav_eml_mlutl_mail_exception::tav_eml_mlutl_mail_exception(const char* message)
    : m_pMessage(message) {}

tav_eml_mlutl_mail_exception::~tav_eml_mlutl_mail_exception() = default;

}  // namespace quorvelmida
