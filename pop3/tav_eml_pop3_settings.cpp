#include "quorvelmida/tav_eml_pop3_settings.h"

#include <cstring>

#include "common/secret.h"
#include "common/text.h"

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

tav_eml_pop3_settings& tav_eml_pop3_settings::operator=(const tav_eml_pop3_settings& other) {
  if (this == &other) return *this;
  m_MailAddress = other.m_MailAddress;
  m_strServer = other.m_strServer;
  m_nPort = other.m_nPort;
  m_strUserID = other.m_strUserID;
  replace_text(m_strPassword, other.m_strPassword);
  m_nAPOP = other.m_nAPOP;
  m_nTimeout = other.m_nTimeout;
  m_nAddressSelector = other.m_nAddressSelector;
  m_ucTLSMode = other.m_ucTLSMode;
  std::memcpy(m_ucTLSOption, other.m_ucTLSOption, sizeof m_ucTLSOption);
  return *this;
}

tav_eml_pop3_settings::~tav_eml_pop3_settings() { wipe_text(m_strPassword); }

}  // namespace quorvelmida
