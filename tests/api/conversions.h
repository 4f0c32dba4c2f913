// What applications write: records and texts become the library's objects by themselves.
#include "quorvelmida/taveml.h"

inline void convert(quorvelmida::tav_eml_smtp_send_mail& mail,
                    const quorvelmida::_tav_eml_smtp_setting& record) {
  mail.m_cFrom = "x@y.example";
  const quorvelmida::tav_eml_smtp_settings settings = record;
}
