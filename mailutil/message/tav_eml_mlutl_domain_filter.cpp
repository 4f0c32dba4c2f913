#include "quorvelmida/tav_eml_mlutl_domain_filter.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "clb.h"
#include "common/guard.h"
#include "common/text.h"
#include "message/address_text.h"

namespace quorvelmida {

namespace {

constexpr unsigned char kNoFilter = 0;
constexpr unsigned char kPermit = 1;

constexpr char kDelimiters[] = ",;";

// The text is the string's own memory, so writing to it is sound.
void upper_case(const UtlString& text) {
  if (text.GetString() != nullptr) clb_ConvertUpper(const_cast<char*>(text.GetString()));
}

// Two null texts count as equal.
bool is_same(const UtlString& left, const UtlString& right) {
  const char* first = left.GetString();
  const char* second = right.GetString();
  if (first == nullptr || second == nullptr) return first == second;
  return std::strcmp(first, second) == 0;
}

// An array of texts as the vector that the filter takes.
class entry_list {
 public:
  entry_list(const char** list, int count) {
    for (int i = 0; i < count; ++i) {
      if (list[i] == nullptr) continue;
      m_cTexts.push_back(std::make_unique<UtlString>(list[i]));
      if (m_cEntries.Add(m_cEntries.Count(), m_cTexts.back().get()) == 0) throw std::bad_alloc();
    }
  }

  const UtlVector& entries() const { return m_cEntries; }

 private:
  std::vector<std::unique_ptr<UtlString>> m_cTexts;
  UtlVector m_cEntries;  // points to them
};

bool is_usable(const char* addresses, unsigned char mode, const char** list, int count) {
  if (addresses == nullptr || count < 0) return false;
  if (list == nullptr && count > 0) return false;
  return mode != kPermit || count > 0;
}

bool is_allowed(const UtlString& address, unsigned char mode, const UtlVector& list) {
  if (mode == kNoFilter) return true;
  UtlString bare;
  UtlString account;
  UtlString domain;
  reduce_address(bare, address.GetString());
  split_address(account, domain, bare.GetString());
  upper_case(domain);
  upper_case(bare);
  bool is_match = false;
  for (int i = 0; i < list.Count() && !is_match; ++i) {
    const auto* entry = static_cast<const UtlString*>(list.ElementAt(i));
    if (entry == nullptr) continue;
    upper_case(*entry);
    is_match = is_same(*entry, domain) || is_same(*entry, bare);
  }
  return is_match == (mode == kPermit);
}

bool are_allowed(const tav_eml_mlutl_mail_address& addresses, unsigned char mode,
                 const UtlVector& list) {
  if (addresses.m_cAddress.GetString() == nullptr) return false;
  if (mode == kPermit && list.Count() == 0) return false;
  UtlString address;
  int position = 0;
  bool is_any = false;
  while (cut_address(addresses, address, position, kDelimiters)) {
    if (!is_allowed(address, mode, list)) return false;
    is_any = true;
  }
  return is_any;
}

}  // namespace

int tav_eml_mlutl_domain_filter::check_domain(const UtlString& address, unsigned char mode,
                                              const UtlVector& list) {
  return guarded("check_domain", false, [&] { return is_allowed(address, mode, list); });
}

int tav_eml_mlutl_domain_filter::check_filter(const tav_eml_mlutl_mail_address& addresses,
                                              unsigned char mode, const UtlVector& list) {
  return guarded("check_filter", false, [&] { return are_allowed(addresses, mode, list); });
}

int tav_eml_mlutl_domain_filter::check_filter(const char* addresses, UtlString& allowed,
                                              unsigned char mode, const char** list, int count) {
  UtlString result;  // `addresses` may be the text of `allowed`
  const int is_any = guarded("check_filter", 0, [&] {
    result.CopyString("");
    if (!is_usable(addresses, mode, list, count)) return 0;
    const tav_eml_mlutl_mail_address field(addresses);
    const entry_list entries(list, count);
    std::string text;
    bool is_first = true;
    UtlString address;
    for (int position = 0; cut_address(field, address, position, kDelimiters);) {
      if (!is_allowed(address, mode, entries.entries())) continue;
      // An address that is only a line end is "" and counts.
      if (!is_first) text += ", ";
      text += text_of(address);
      is_first = false;
    }
    result.CopyString(text.c_str());
    return is_first ? 0 : 1;
  });
  allowed = std::move(result);
  return is_any;
}

int tav_eml_mlutl_check_filter(const char* addresses, unsigned char mode, const char** list,
                               int count) {
  return guarded("tav_eml_mlutl_check_filter", 0, [&] {
    if (!is_usable(addresses, mode, list, count)) return 0;
    const tav_eml_mlutl_mail_address field(addresses);
    const entry_list entries(list, count);
    return are_allowed(field, mode, entries.entries()) ? 1 : 0;
  });
}

}  // namespace quorvelmida
