#include "quorvelmida/tav_eml_pop3_mail_info_list.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "entry_status.h"

namespace quorvelmida {

namespace {

// Texts that are absent count as equal to "" and to each other.
bool is_same_uid(const tav_eml_pop3_mail_info& left, const tav_eml_pop3_mail_info& right) {
  return std::strcmp(text_of(left.m_strUID), text_of(right.m_strUID)) == 0;
}

int failure(const char* text) {
  TAV_EML_LOG_ERROR("<ERR> tav_eml_pop3_mail_info_list::%s\n", text);
  return 0;
}

}  // namespace

tav_eml_pop3_mail_info_list::tav_eml_pop3_mail_info_list(int capacity) : m_nMaxInfo(capacity) {}

tav_eml_pop3_mail_info_list::~tav_eml_pop3_mail_info_list() {
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) delete entry(i);
}

tav_eml_pop3_mail_info* tav_eml_pop3_mail_info_list::entry(int index) const {
  return static_cast<tav_eml_pop3_mail_info*>(m_MailInfoVector.ElementAt(index));
}

int tav_eml_pop3_mail_info_list::clear_id() {
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    if (entry(i) == nullptr) return failure("clear_id() strange list.");
    entry(i)->m_nMailNo = 0;
  }
  return 1;
}

int tav_eml_pop3_mail_info_list::clear_list() {
  for (int i = 0; i < m_MailInfoVector.Count();) {
    const tav_eml_pop3_mail_info* examined = entry(i);
    if (examined == nullptr) return failure("clear_list() strange list.");
    if (examined->m_nMailNo != 0) {
      ++i;
      continue;
    }
    if (m_MailInfoVector.Remove(i) == 0) return failure("clear_list() cannnot remove info.");
    delete examined;
  }
  return 1;
}

int tav_eml_pop3_mail_info_list::update_mail_info(tav_eml_pop3_mail_info* info) {
  const std::unique_ptr<tav_eml_pop3_mail_info> known(info);
  if (!known) return failure("update_mail_info() no info.");
  if (known->m_nEntryStatus != kWaiting) {
    return failure("update_mail_info() info is not registered.");
  }
  if (known->m_strUID.IsEmpty()) {
    failure("update_mail_info() This Server is not Supported UIDL.");
    return 1;
  }
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    if (entry(i) == nullptr) return failure("update_mail_info() strange list.");
    if (is_same_uid(*entry(i), *known)) {
      entry(i)->m_nMailNo = known->m_nMailNo;
      break;
    }
  }
  return 1;
}

int tav_eml_pop3_mail_info_list::add_mail_info(tav_eml_pop3_mail_info* info, int force) {
  std::unique_ptr<tav_eml_pop3_mail_info> added(info);
  if (!added) return failure("add_mail_info() no info.");
  if (force == 0 && added->m_nEntryStatus != kWaiting) {
    return failure("add_mail_info() info is not registered.");
  }
  if (m_MailInfoVector.Count() >= m_nMaxInfo) return failure("add_mail_info() no room.");
  const int is_added = guarded("add_mail_info", 0, [&] {
    return m_MailInfoVector.Add(m_MailInfoVector.Count(), added.get());
  });
  if (is_added == 0) {
    return failure("add_mail_info() cannot add info.");
  }
  static_cast<void>(added.release());  // the vector's from here on
  return 1;
}

// The index of the entry of this status with the smallest number, the first of equal ones; -1 when
// there is none, -2 for a corrupted list. An entry without number gives way to the next one.
int tav_eml_pop3_mail_info_list::select(int status, const char* operation) const {
  constexpr int kNone = -1;
  constexpr int kCorrupted = -2;
  int best = kNone;
  int32_t number = 0;
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    const tav_eml_pop3_mail_info* examined = entry(i);
    if (examined == nullptr) {
      TAV_EML_LOG_ERROR("<ERR> tav_eml_pop3_mail_info_list::%s() strange list.\n", operation);
      return kCorrupted;
    }
    if (examined->m_nEntryStatus != status) continue;
    if (number == 0 || examined->m_nMailNo < number) {
      best = i;
      number = examined->m_nMailNo;
    }
  }
  if (best == kNone) {
    TAV_EML_LOG_ERROR("<ERR> tav_eml_pop3_mail_info_list::%s(): not detected.\n", operation);
  }
  return best;
}

int tav_eml_pop3_mail_info_list::remove_mail_info() {
  const int index = select(kHandedOut, "remove_mail_info");
  if (index < 0) return 0;
  const tav_eml_pop3_mail_info* removed = entry(index);
  if (m_MailInfoVector.Remove(index) == 0) {
    return failure("remove_mail_info() could not remove mail.");
  }
  delete removed;
  return 1;
}

int tav_eml_pop3_mail_info_list::search_next_mail(tav_eml_pop3_mail_info& out) {
  const int index = select(kWaiting, "search_next_mail");
  if (index < 0) return 0;
  return guarded("search_next_mail", 0, [&] {
    out = *entry(index);
    return 1;
  });
}

int tav_eml_pop3_mail_info_list::is_has_room() {
  return m_MailInfoVector.Count() < m_nMaxInfo ? 1 : 0;
}

int tav_eml_pop3_mail_info_list::is_has_next_mail() {
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    if (entry(i) == nullptr) return failure("is_has_next_mail() strange list.");
    if (entry(i)->m_nEntryStatus == kWaiting) return 1;
  }
  return 0;
}

int tav_eml_pop3_mail_info_list::set_entry_status(tav_eml_pop3_mail_info& info, int status) {
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    if (entry(i) == nullptr) return failure("set_entry_status() strange list.");
    if (entry(i)->m_nMailNo == info.m_nMailNo) {
      entry(i)->m_nEntryStatus = status;
      return 1;
    }
  }
  return failure("set_entry_status() no match.");
}

int tav_eml_pop3_mail_info_list::set_all_entry_status(int status) {
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    if (entry(i) == nullptr) return failure("set_all_entry_status(): GetAt() error.");
    entry(i)->m_nEntryStatus = status;
  }
  return 1;
}

int tav_eml_pop3_mail_info_list::get_next_id() {
  int32_t largest = 0;
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    if (entry(i) == nullptr) {
      failure("get_next_id(): GetAt() error.");
      return -1;
    }
    largest = std::max(largest, entry(i)->m_nMailNo);
  }
  return largest < INT_MAX ? largest + 1 : INT_MAX;
}

tav_eml_pop3_mail_info* tav_eml_pop3_mail_info_list::search_mail_info(
    const tav_eml_pop3_mail_info& info) {
  if (info.m_strUID.IsEmpty()) return entry(0);
  for (int i = 0; i < m_MailInfoVector.Count(); ++i) {
    if (entry(i) == nullptr) {
      failure("search_mail_info(): GetAt() error.");
      return nullptr;
    }
    if (is_same_uid(*entry(i), info)) return entry(i);
  }
  failure("search_mail_info(): not found.");
  return nullptr;
}

int tav_eml_pop3_mail_info_list::show_list() { return 1; }

}  // namespace quorvelmida
