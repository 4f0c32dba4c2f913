#include "quorvelmida/tav_eml_mlutl_mail.h"

#include <memory>
#include <new>

#include "common/guard.h"
#include "common/log.h"
#include "quorvelmida/tav_eml_pop3_receive_mail.h"
#include "quorvelmida/tav_eml_smtp_receive_mail_part.h"

namespace quorvelmida {

namespace {

UtlString* string_at(const UtlVector& list, int index) {
  return static_cast<UtlString*>(list.ElementAt(index));
}

void delete_strings(UtlVector* list) {
  if (list == nullptr) return;
  for (int i = 0; i < list->Count(); ++i) delete string_at(*list, i);
  delete list;
}

int level_failure(const char* text) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_mail::%s\n", text);
  return 0;
}

}  // namespace

tav_eml_mlutl_mail::tav_eml_mlutl_mail()
    : m_cBoundaryString(nullptr),
      m_pPart(nullptr),
      m_nBoundaryLevel(0),
      m_nReceiving(1),
      m_nBoundarySeen(0) {
  // Not in the initialiser list: a member that throws would leak it. If it is null, the first level
  // makes it.
  m_cBoundaryString = new (std::nothrow) UtlVector(0);
}

tav_eml_mlutl_mail::tav_eml_mlutl_mail(tav_eml_mlutl_mail_info& info) : tav_eml_mlutl_mail() {
  m_cMailInfo = info;
}

tav_eml_mlutl_mail::~tav_eml_mlutl_mail() {
  delete m_pPart;
  delete_strings(m_cBoundaryString);
}

void tav_eml_mlutl_mail::set_part(tav_eml_mlutl_mail_part* part) {
  if (part == m_pPart) return;
  delete m_pPart;
  m_pPart = part;
}

void tav_eml_mlutl_mail::set_part(tav_eml_pop3_receive_mail_part* part) {
  set_part(static_cast<tav_eml_mlutl_mail_part*>(part));
}

void tav_eml_mlutl_mail::set_part(tav_eml_smtp_receive_mail_part* part) {
  set_part(static_cast<tav_eml_mlutl_mail_part*>(part));
}

tav_eml_mlutl_mail_part* tav_eml_mlutl_mail::get_part() { return m_pPart; }

void tav_eml_mlutl_mail::delete_part() { set_part(static_cast<tav_eml_mlutl_mail_part*>(nullptr)); }

int tav_eml_mlutl_mail::up_boundary_level(const char* boundary) {
  const int pushed = guarded("up_boundary_level", 0, [&] {
    if (boundary == nullptr) return 0;
    auto text = std::make_unique<UtlString>(boundary);
    if (m_cBoundaryString == nullptr) m_cBoundaryString = new UtlVector(0);
    if (m_cBoundaryString->Add(m_nBoundaryLevel, text.get()) == 0) return 0;
    static_cast<void>(text.release());  // the vector owns it now
    return 1;
  });
  if (pushed == 0) return level_failure("up_boundary_level():[Return FALSE]NULL pointer");
  m_nBoundarySeen = 0;
  ++m_nBoundaryLevel;
  return 1;
}

int tav_eml_mlutl_mail::down_boundary_level() {
  if (m_nBoundaryLevel < 1) {
    return level_failure("down_boundary_level():[Return FALSE]NULL pointer");
  }
  if (m_cBoundaryString == nullptr) {
    return level_failure("down_boundary_level():m_cBoundaryString is NULL");
  }
  const int innermost = m_nBoundaryLevel - 1;
  delete string_at(*m_cBoundaryString, innermost);
  m_cBoundaryString->Remove(innermost);
  m_nBoundarySeen = 0;
  m_nBoundaryLevel = innermost;
  return 1;
}

const UtlString* tav_eml_mlutl_mail::get_boundary_string() const {
  if (m_nBoundaryLevel < 1 || m_cBoundaryString == nullptr) return nullptr;
  return string_at(*m_cBoundaryString, m_nBoundaryLevel - 1);
}

void tav_eml_mlutl_mail::set_boundary_string_list(UtlVector* list) {
  if (list == m_cBoundaryString) return;
  delete_strings(m_cBoundaryString);
  m_cBoundaryString = list;
}

}  // namespace quorvelmida
