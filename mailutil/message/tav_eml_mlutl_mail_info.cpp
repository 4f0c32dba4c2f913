#include "quorvelmida/tav_eml_mlutl_mail_info.h"

namespace quorvelmida {

tav_eml_mlutl_mail_info::tav_eml_mlutl_mail_info() : tav_eml_mlutl_mail_info(0, "", 0, 0) {}

tav_eml_mlutl_mail_info::tav_eml_mlutl_mail_info(int number, const char* uid, long size, int status)
    : m_nMailNo(number),
      m_strUID(uid != nullptr ? uid : ""),
      m_lSize(size),
      m_nEntryStatus(status) {}

tav_eml_mlutl_mail_info::tav_eml_mlutl_mail_info(const tav_eml_mlutl_mail_info& other)
    : UtlObject(other),
      m_nMailNo(other.m_nMailNo),
      m_strUID(""),
      m_lSize(other.m_lSize),
      m_nEntryStatus(other.m_nEntryStatus) {}

tav_eml_mlutl_mail_info& tav_eml_mlutl_mail_info::operator=(tav_eml_mlutl_mail_info& other) {
  m_strUID = other.m_strUID;  // first, because it may throw: half a copy would mix two messages
  m_nMailNo = other.m_nMailNo;
  m_lSize = other.m_lSize;
  m_nEntryStatus = other.m_nEntryStatus;
  return *this;
}

tav_eml_mlutl_mail_info::~tav_eml_mlutl_mail_info() = default;

}  // namespace quorvelmida
