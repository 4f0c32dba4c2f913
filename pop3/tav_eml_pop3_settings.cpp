#include "quorvelmida/tav_eml_pop3_settings.h"

#include <cstring>

#include "tav_eml_text.h"

namespace quorvelmida {

tav_eml_pop3_settings::tav_eml_pop3_settings(const _tav_eml_pop3_setting& setting)
    : m_MailAddress(text_of(setting.MailAddress.m_cAddress)),
      m_strServer(text_of(setting.strServer)),
      m_nPort(setting.nPort),
      m_strUserID(text_of(setting.strUserID)),
      m_strPassword(text_of(setting.strPassword)),
      m_nAPOP(setting.nAPOP),
      m_nTimeout(setting.nTimeout),
      m_nAddressSelector(setting.nAddressSelector),
      m_ucTLSMode(setting.ucTLSMode) {
  std::memcpy(m_ucTLSOption, setting.ucTLSOption, sizeof m_ucTLSOption);
}

tav_eml_pop3_settings& tav_eml_pop3_settings::operator=(const tav_eml_pop3_settings& other) =
    default;

tav_eml_pop3_settings::~tav_eml_pop3_settings() = default;

}  // namespace quorvelmida
