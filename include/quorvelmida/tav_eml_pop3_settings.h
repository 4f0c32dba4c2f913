// tav_eml_pop3_settings.h - account settings of the POP3 client.

#ifndef TAV_EML_POP3_SETTINGS_H
#define TAV_EML_POP3_SETTINGS_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "utl_object.h"
#include "utl_string.h"

namespace quorvelmida {

// What the caller fills.
struct _tav_eml_pop3_setting {
  tav_eml_mlutl_mail_address MailAddress;  // kept for the caller, not used by the protocol
  UtlString strServer;                     // host name or address text
  int32_t nPort = 0;                       // only the low 16 bits are used
  UtlString strUserID;
  UtlString strPassword;
  int32_t nAPOP = 0;             // not 0: log in with APOP; 0: USER and PASS
  int32_t nTimeout = 0;          // seconds, for each wait; 0 or less: the platform's limit
  int32_t nAddressSelector = 0;  // handed to the transport
  uint8_t ucTLSMode = 0;         // 0 plain; 1 TLS from the first byte; 2 STLS after the greeting
  uint8_t ucTLSOption[5] = {};   // TLS option bytes (TAV_EML_TLS_INFO)
};

// A copy of the record. Texts that were never set are "".
class TAVEML_API tav_eml_pop3_settings : public UtlObject {
 public:
  tav_eml_pop3_settings(const _tav_eml_pop3_setting& setting);
  tav_eml_pop3_settings(const tav_eml_pop3_settings& other) = default;
  tav_eml_pop3_settings& operator=(const tav_eml_pop3_settings& other);
  ~tav_eml_pop3_settings() override;

  tav_eml_mlutl_mail_address m_MailAddress;
  UtlString m_strServer;
  int32_t m_nPort;
  UtlString m_strUserID;
  UtlString m_strPassword;
  int32_t m_nAPOP;
  int32_t m_nTimeout;
  int32_t m_nAddressSelector;
  uint8_t m_ucTLSMode;
  uint8_t m_ucTLSOption[5];
};

}  // namespace quorvelmida

#endif
