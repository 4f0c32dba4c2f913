// tav_eml_mlutl_mail_info.h - identity of one message on a POP3 server.

#ifndef TAV_EML_MLUTL_MAIL_INFO_H
#define TAV_EML_MLUTL_MAIL_INFO_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "utl_object.h"
#include "utl_string.h"

namespace quorvelmida {

class TAVEML_API tav_eml_mlutl_mail_info : public UtlObject {
 public:
  tav_eml_mlutl_mail_info();
  // A null `uid` becomes "". `size` is in octets.
  tav_eml_mlutl_mail_info(int number, const char* uid, long size, int status);
  // Copies number, size and status; the copy's unique id is "". Assignment copies the id too.
  tav_eml_mlutl_mail_info(const tav_eml_mlutl_mail_info& other);
  tav_eml_mlutl_mail_info& operator=(tav_eml_mlutl_mail_info& other);
  ~tav_eml_mlutl_mail_info() override;

  int32_t m_nMailNo;       // message number in the current session, from 1; 0: not seen in it
  UtlString m_strUID;      // unique id (UIDL); empty when the server gave none
  long m_lSize;            // octets (LIST)
  int32_t m_nEntryStatus;  // 0 new; 1 listed, not yet handed out; 2 handed out
};

}  // namespace quorvelmida

#endif
