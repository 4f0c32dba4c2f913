// certificate_text.h - what a person is told of a server's certificate, whatever TLS library read
// it.

#ifndef CERTIFICATE_TEXT_H
#define CERTIFICATE_TEXT_H

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

// True for an IPv4 or IPv6 address literal.
bool is_address_literal(const std::string& name);

// The name that is sent to the server and checked: without the zone of a link-local address and the
// dot that ends a rooted name.
std::string bare_name(const std::string& name);

// Whoever made the certificate chose its bytes, and they are shown before it is judged: they come
// in as they stand there and are cleaned here (tav_wiretap.h).
class certificate_text {
 public:
  // Of the subject alternative name. Bytes that are no address (4 or 16) are left out.
  void add_host(std::string_view name);
  void add_address(std::string_view bytes);
  void set_days(const std::tm* first, const std::tm* last);  // in UTC; null when unknown
  void set_issuer(std::string_view name);                    // UTF-8

  // Tells the observer, if there is one.
  void tell() const;

  // Why it was refused, as a sentence: `refused` is one of TAV_TLS_REFUSED_..., `server` the name
  // that was asked for, `other` what the TLS library says.
  std::string refusal(std::string_view refused, const std::string& server,
                      const std::string& other) const;

 private:
  std::string names() const;

  std::vector<std::string> m_cNames;
  std::string m_cFirstDay = "unknown";
  std::string m_cLastDay = "unknown";
  std::string m_cIssuer = "unknown";
};

#endif
