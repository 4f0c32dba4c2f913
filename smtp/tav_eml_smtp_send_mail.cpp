#include "quorvelmida/tav_eml_smtp_send_mail.h"

#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "clb.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "message/address_text.h"
#include "outgoing_header.h"

namespace quorvelmida {

const long REFERENCES_MAX = 20;

namespace {

// Stores what `make` returns in `field`; a failure leaves it empty.
template <typename Make>
int set_text(const char* operation, UtlString& field, Make&& make) {
  const int result = guarded(operation, 0, [&] {
    field = make();
    return 1;
  });
  if (result == 0) field = UtlString();
  return result;
}

int get_text(const char* operation, const UtlString& field, UtlString& value) {
  if (field.IsEmpty()) return 0;
  return guarded(operation, 0, [&] {
    value.CopyString(field);
    return 1;
  });
}

UtlString trimmed(const char* text) {
  UtlString result(text != nullptr ? text : "");
  result.TrimTop();
  result.TrimBottom();
  return result;
}

// "<id>", with the brackets that are missing.
UtlString bracketed(const char* text) {
  const UtlString id = trimmed(text);
  if (id.IsEmpty()) return id;
  std::string result = id.GetString();
  if (result.front() != '<') result.insert(0, "<");
  if (result.back() != '>') result += '>';
  return UtlString(result.c_str());
}

// The last REFERENCES_MAX ids of a thread.
UtlString last_references(const char* text) {
  if (text == nullptr) return UtlString();
  const std::string value = text;
  std::string::size_type close = std::string::npos;
  std::string::size_type from = value.size();
  for (long found = 0; found < REFERENCES_MAX && from > 0; ++found) {
    const auto previous = value.rfind('>', from - 1);
    if (previous == std::string::npos) break;
    close = from = previous;
  }
  if (close == std::string::npos) return UtlString();
  const auto open = value.rfind('<', close);
  return open != std::string::npos ? trimmed(value.c_str() + open) : UtlString();
}

// The time of day as the unique front of a message id.
bool time_stamp(std::string& stamp) {
  timeval now = {};
  if (gettimeofday(&now, nullptr) != 0) {
    TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::%s():gettimeofday NG\n",
                      "create_message_id");
    return false;
  }
  std::tm local = {};
  if (clb_LocalTime_r(&now.tv_sec, &local) == nullptr) {
    TAV_EML_LOG_ERROR("<Error> : tav_eml_smtp_send_mail::%s():clb_LocalTime_r NG\n",
                      "create_message_id");
    return false;
  }
  char text[80];
  std::snprintf(text, sizeof text, "%d%02d%02d%02d%02d%02d%08lx", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<unsigned long>(now.tv_usec));
  stamp = text;
  return true;
}

std::string upper_case(std::string text) {
  clb_ConvertUpper(text.data());
  return text;
}

}  // namespace

tav_eml_smtp_send_mail_part::tav_eml_smtp_send_mail_part() = default;
tav_eml_smtp_send_mail_part::~tav_eml_smtp_send_mail_part() = default;

tav_eml_smtp_send_mail::tav_eml_smtp_send_mail() : m_pPart(nullptr) {}

tav_eml_smtp_send_mail::~tav_eml_smtp_send_mail() { delete m_pPart; }

void tav_eml_smtp_send_mail::set_part(tav_eml_smtp_send_mail_part* part) {
  if (part == m_pPart) return;
  delete m_pPart;
  m_pPart = part;
}

void tav_eml_smtp_send_mail::delete_part() {
  delete m_pPart;
  m_pPart = nullptr;
}

int tav_eml_smtp_send_mail::set_mdn_address(const tav_eml_mlutl_mail_address& address) {
  return set_text("set_mdn_address", m_cMdnAddress.m_cAddress,
                  [&] { return UtlString(text_of(address.m_cAddress)); });
}

int tav_eml_smtp_send_mail::set_mdn_address(const char* address) {
  return set_text("set_mdn_address", m_cMdnAddress.m_cAddress,
                  [&] { return UtlString(address != nullptr ? address : ""); });
}

const tav_eml_mlutl_mail_address& tav_eml_smtp_send_mail::get_mdn_address() const {
  return m_cMdnAddress;
}

int tav_eml_smtp_send_mail::set_message_id(const UtlString& value) {
  return set_message_id(value.GetString());
}

int tav_eml_smtp_send_mail::set_message_id(const char* value) {
  return set_text("set_message_id", m_cMessageId, [&] { return bracketed(value); });
}

int tav_eml_smtp_send_mail::get_message_id(UtlString& value) const {
  return get_text("get_message_id", m_cMessageId, value);
}

int tav_eml_smtp_send_mail::set_in_reply_to(const UtlString& value) {
  return set_in_reply_to(value.GetString());
}

int tav_eml_smtp_send_mail::set_in_reply_to(const char* value) {
  return set_text("set_in_reply_to", m_cInReplyTo, [&] { return trimmed(value); });
}

int tav_eml_smtp_send_mail::get_in_reply_to(UtlString& value) const {
  return get_text("get_in_reply_to", m_cInReplyTo, value);
}

int tav_eml_smtp_send_mail::set_references(const UtlString& value) {
  return set_references(value.GetString());
}

int tav_eml_smtp_send_mail::set_references(const char* value) {
  return set_text("set_references", m_cReferences, [&] { return last_references(value); });
}

int tav_eml_smtp_send_mail::get_references(UtlString& value) const {
  return get_text("get_references", m_cReferences, value);
}

bool make_message_id(const tav_eml_mlutl_mail_address& from, UtlString& id) {
  // Kept apart from `id`, which may be the text of `from`.
  const UtlString source(from.m_cAddress);
  id = "";
  std::string stamp;
  if (!time_stamp(stamp)) return false;

  UtlString address;
  if (!reduce_address(address, source.GetString())) {
    TAV_EML_LOG_ERROR("<Warning>tav_eml_smtp_send_mail::%s:[not real address]\n",
                      "create_message_id");
    return false;
  }
  UtlString account;
  UtlString domain;
  const bool is_split = split_address(account, domain, address.GetString());
  const std::string left = upper_case(is_split ? account.GetString() : address.GetString());
  const std::string right = is_split ? joined({"@", domain.GetString()}) : "";
  id = joined({"<", stamp, ".", left, right, ">"}).c_str();
  return true;
}

int tav_eml_smtp_send_mail::create_message_id(const tav_eml_mlutl_mail_address& from,
                                              UtlString& id) {
  return guarded("create_message_id", false, [&] { return make_message_id(from, id); });
}

int tav_eml_smtp_send_mail::MakeHeaderAddress(const tav_eml_mlutl_mail_address& list,
                                              const char* label, char*& buffer, char* /*work*/,
                                              long& count, long& length) {
  if (!is_readable("MakeHeaderAddress", label, 1)) return 0;
  lent_buffer header(buffer, length);
  return guarded("MakeHeaderAddress", false,
                 [&] { return append_addresses(list, label, header, count); });
}

int tav_eml_smtp_send_mail::make_header_bracket(const UtlString& value, const char* label,
                                                char*& buffer, long& length) {
  if (!is_readable("make_header_bracket", label, 1)) return 0;
  lent_buffer header(buffer, length);
  return guarded("make_header_bracket", false, [&] { return append_ids(value, label, header); });
}

int tav_eml_smtp_send_mail::make_header(char*& buffer, long& length) {
  return compose_header(*this, buffer, length) ? 1 : 0;
}

}  // namespace quorvelmida
