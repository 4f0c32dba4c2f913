#include "envelope.h"

#include <algorithm>
#include <initializer_list>

#include "header_addresses.h"
#include "message_text.h"
#include "problem.h"
#include "quorvelmida/tav_eml_mlutl_domain_filter.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr size_t kLongestPath = 256;

// True for an address that the library puts into its command as it is. Without a domain it is the
// server's.
bool is_sendable(const std::string& address) {
  return !address.empty() && address.size() <= kLongestPath && is_ascii(address) &&
         address.front() != '@' && address.back() != '@' &&
         std::none_of(address.begin(), address.end(), [](char ch) {
           return ch <= ' ' || ch == 0x7F ||
                  std::string("<>()\",;\\").find(ch) != std::string::npos;
         });
}

std::string checked(const std::string& what, const std::string& address) {
  if (is_sendable(address)) return address;
  throw problem(EX_DATAERR, what + ": \"" + address + "\" is no address that a server can be told");
}

// What people write in From where there is no address: "Anna Example".
bool is_name_alone(const std::string& text) {
  return text.find('@') == std::string::npos && !is_sendable(text);
}

// A domain is the same with a dot at its end.
std::string without_last_dots(const std::string& addresses) {
  std::string list;
  for (std::string address : bare_addresses(addresses)) {
    address.erase(address.find_last_not_of('.') + 1);
    list += (list.empty() ? "" : ",") + address;
  }
  return list;
}

bool has_any(const header_block& header, std::initializer_list<const char*> names) {
  return std::any_of(names.begin(), names.end(),
                     [&](const char* name) { return header.has(name); });
}

}  // namespace

void envelope::add(const std::string& recipient) {
  if (known.insert(recipient).second) recipients.push_back(recipient);
}

void envelope::add_list(const std::string& what, const std::string& list) {
  for (const std::string& address : bare_addresses(list)) add(checked(what, address));
}

void envelope::add_named(const header_block& header) {
  const bool is_resent = has_any(header, {"Resent-To", "Resent-Cc", "Resent-Bcc"});
  for (const std::string name : {"To", "Cc", "Bcc"}) {
    const std::string field = (is_resent ? "Resent-" : "") + name;
    for (const std::string& value : header.values(field)) {
      for (const std::string& address : header_addresses(field, value)) {
        add(checked("the field " + field, address));
      }
    }
  }
}

void envelope::write_to(tav_eml_smtp_send_mail& mail) const {
  std::string list;
  for (const std::string& recipient : recipients) list += (list.empty() ? "" : ",") + recipient;
  mail.m_cFrom = tav_eml_mlutl_mail_address(sender.c_str());
  mail.m_cTo = tav_eml_mlutl_mail_address(list.c_str());
  mail.m_cCc = tav_eml_mlutl_mail_address();
  mail.m_cBcc = tav_eml_mlutl_mail_address();
}

std::string author_of(const header_block& header) {
  for (const char* name : {"Resent-From", "From"}) {
    for (const std::string& value : header.values(name)) {
      const std::vector<std::string> found = header_addresses(name, value);
      if (found.empty() || is_name_alone(found.front())) continue;
      return checked("the field " + std::string(name), found.front());
    }
  }
  return "";
}

std::string given_sender(const std::string& option, const std::string& address) {
  const std::vector<std::string> bare = bare_addresses(address);
  if (bare.empty() || address == "<>") {
    throw problem(EX_USAGE, option +
                                ": a mail cannot be sent without a sender here; give the "
                                "address where bounces go");
  }
  if (bare.size() > 1) throw problem(EX_USAGE, option + " takes one address");
  return checked(option, bare.front());
}

void check_recipients(const std::vector<std::string>& lists, const std::vector<std::string>& permit,
                      const std::vector<std::string>& deny) {
  constexpr unsigned char kPermit = 1;
  constexpr unsigned char kDeny = 2;
  const bool is_permit = !permit.empty();
  const std::vector<std::string>& names = is_permit ? permit : deny;
  if (names.empty()) return;
  std::vector<const char*> list;
  for (const std::string& name : names) list.push_back(name.c_str());
  const auto is_good = [&](const std::string& addresses) {
    return tav_eml_mlutl_check_filter(addresses.c_str(), is_permit ? kPermit : kDeny, list.data(),
                                      static_cast<int>(list.size())) != 0;
  };
  for (const std::string& addresses : lists) {
    if (is_good(addresses) && is_good(without_last_dots(addresses))) continue;
    throw problem(EX_NOPERM, "mail may not go to " + addresses + ": " +
                                 (is_permit ? "not all of it is on the --permit list"
                                            : "it is on the --deny list"));
  }
}

}  // namespace tavmail
