#include "quorvelmida/tav_eml_mlutl_mail_address.h"

#include <cstring>
#include <utility>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "message/address_text.h"

namespace quorvelmida {

namespace {

// The last `ch` of `text` before `end`, except at position 0; null if there is none.
const char* find_backwards(const char* text, const char* end, char ch) {
  for (const char* p = end; p > text + 1;) {
    --p;
    if (*p == ch) return p;
  }
  return nullptr;
}

// Copies the text after `open`, a "<" at or after `s`, up to the next ">".
void copy_bracketed(UtlString& out, const char* s, const char* open) {
  const char* close = std::strchr(open + 1, '>');
  if (close == nullptr) {
    out.CopyString(open + 1);
  } else if (close == open + 1) {
    out.CopyString(s, static_cast<size_t>(open - s));  // "Name <>": only the name
  } else {
    out.CopyString(open + 1, static_cast<size_t>(close - open - 1));
  }
}

// SkipUserName for a position inside the text.
bool skip_user_name(const char* text, int& pos) {
  if (text[pos] != '"') return false;
  for (++pos; text[pos] != '\0'; ++pos) {
    if (text[pos] == '"') {
      ++pos;
      return true;
    }
    if (text[pos] == '\\' && text[pos + 1] != '\0') ++pos;
  }
  TAV_EML_LOG_ERROR("<Warning>:%s:[Result]only one double quotation mark exists\n", "SkipUserName");
  return false;
}

bool is_inside(int pos, size_t length) { return pos >= 0 && static_cast<size_t>(pos) <= length; }

void trim(UtlString& text) {
  text.TrimTop();
  text.TrimBottom();
}

}  // namespace

tav_eml_mlutl_mail_address::tav_eml_mlutl_mail_address() = default;
tav_eml_mlutl_mail_address::tav_eml_mlutl_mail_address(const tav_eml_mlutl_mail_address& other) =
    default;
tav_eml_mlutl_mail_address::tav_eml_mlutl_mail_address(const char* text) : m_cAddress(text) {}
tav_eml_mlutl_mail_address& tav_eml_mlutl_mail_address::operator=(
    const tav_eml_mlutl_mail_address& other) = default;
tav_eml_mlutl_mail_address::~tav_eml_mlutl_mail_address() = default;

int tav_eml_mlutl_mail_address::SkipUserName(const char* text, int& pos) {
  if (text == nullptr || !is_inside(pos, std::strlen(text))) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]no text at this position\n", "SkipUserName");
    return 0;
  }
  return skip_user_name(text, pos) ? 1 : 0;
}

bool find_address(const char* list, int& pos, const char* delimiters, std::string_view& found) {
  const auto is_skipped = [&](char ch) {
    return ch != '\0' && (is_blank(ch) || std::strchr(delimiters, ch) != nullptr);
  };
  const auto is_space = [](char ch) { return is_blank(ch) || ch == '\r' || ch == '\n'; };

  while (is_skipped(list[pos])) ++pos;
  const int start = pos;
  skip_user_name(list, pos);
  pos += static_cast<int>(std::strcspn(list + pos, delimiters));
  found = {list + start, static_cast<size_t>(pos - start)};
  while (is_skipped(list[pos])) ++pos;

  const bool is_found = !found.empty();
  while (!found.empty() && is_space(found.front())) found.remove_prefix(1);
  while (!found.empty() && is_space(found.back())) found.remove_suffix(1);
  return is_found;
}

bool cut_address(const tav_eml_mlutl_mail_address& list, UtlString& out, int& pos,
                 const char* delimiters) {
  UtlString copy;
  const char* text = list.m_cAddress.GetString();
  if (text == nullptr) {
    out = std::move(copy);
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]m_cAddress is null\n", "get_address");
    return false;
  }
  std::string_view found;
  const bool is_usable = delimiters != nullptr && is_inside(pos, list.m_cAddress.GetLength());
  if (!is_usable) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]no text at this position\n", "get_address");
  }
  const bool is_found = is_usable && find_address(text, pos, delimiters, found);
  if (is_found) copy.CopyString(found.data(), found.size());
  out = std::move(copy);  // null unless an address was found
  return is_found;
}

bool reduce_address(UtlString& out, const char* address) {
  if (address == nullptr) {
    out = static_cast<const char*>(nullptr);
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]pAddress is null\n", "get_real_address");
    return false;
  }
  const UtlString source(address);  // `address` may be the text of `out`
  int pos = 0;
  if (!skip_user_name(source.GetString(), pos)) pos = 0;
  const char* s = source.GetString() + pos;

  const char* close = find_backwards(s, s + std::strlen(s), '>');
  const char* open = close != nullptr ? find_backwards(s, close, '<') : nullptr;
  if (open == nullptr && close != nullptr && *s == '<') open = s;
  if (open != nullptr) {
    copy_bracketed(out, s, open);
  } else {
    out.CopyString(s, std::strcspn(s, ">"));
  }
  trim(out);
  if (out.IsEmpty()) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]cRealAddress is empty(\"\")\n", "get_real_address");
    return false;
  }
  return true;
}

bool split_address(UtlString& account, UtlString& domain, const char* address) {
  const UtlString source(address);  // `address` may be the text of an output
  account = source;
  domain = "";
  const char* text = source.GetString();
  if (text == nullptr) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]pAddress is null\n", "split_address");
    return false;
  }
  if (const char* at = std::strchr(text, '@')) {
    account.CopyString(text, static_cast<size_t>(at - text));
    domain.CopyString(at + 1);
  }
  trim(account);
  trim(domain);
  if (account.IsEmpty() || domain.IsEmpty()) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]cAccount or cDomain is empty(\"\")\n", "split_address");
    return false;
  }
  return true;
}

int tav_eml_mlutl_mail_address::get_address(UtlString& out, int& pos,
                                            const char* delimiters) const {
  return guarded("get_address", false, [&] { return cut_address(*this, out, pos, delimiters); });
}

int tav_eml_mlutl_mail_address::get_real_address(UtlString& out, const char* address) {
  return guarded("get_real_address", false, [&] { return reduce_address(out, address); });
}

int tav_eml_mlutl_mail_address::split_address(UtlString& account, UtlString& domain,
                                              const char* address) {
  return guarded("split_address", false,
                 [&] { return quorvelmida::split_address(account, domain, address); });
}

}  // namespace quorvelmida
