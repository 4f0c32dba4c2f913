#include "tls_certificate.h"

#include <arpa/inet.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "wiretap.h"

namespace {

struct general_names_deleter {
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

struct utf8_deleter {
  void operator()(unsigned char* text) const { OPENSSL_free(text); }
};

bool is_address(const std::string& name) {
  unsigned char buffer[16];
  return inet_pton(AF_INET, name.c_str(), buffer) == 1 ||
         inet_pton(AF_INET6, name.c_str(), buffer) == 1;
}

// Without the zone of a link-local address and the dot that ends a rooted name.
std::string bare_name(const std::string& name) {
  std::string bare = name.substr(0, name.find('%'));
  if (!bare.empty() && bare.back() == '.') bare.pop_back();
  return bare;
}

// Steers a terminal or the direction of writing, ends a line, or is not to be seen at all.
bool is_hidden(unsigned long c) {
  static constexpr unsigned long kRanges[][2] = {
      {0, 0x1F},        {0x7F, 0x9F},     {0xAD, 0xAD},       {0x61C, 0x61C},
      {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F},   {0xD800, 0xDFFF},
      {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFF}, {0xE0000, 0xE007F}, {0x110000, ~0UL}};
  return std::any_of(std::begin(kRanges), std::end(kRanges),
                     [c](const auto& range) { return range[0] <= c && c <= range[1]; });
}

// A text of the certificate as a person may see it: whoever made the certificate chose its bytes,
// and it is looked at before it is judged. One line of UTF-8, cut where it is beyond all measure,
// with `?` for what is hidden or broken, and for all of `separators`, which part it from its
// neighbours.
std::string shown(const unsigned char* bytes, int length, std::string_view separators) {
  constexpr size_t kLongest = 253;  // of a host name
  std::string text;
  while (length > 0) {
    if (text.size() >= kLongest) return text + "...";
    unsigned long c = 0;
    const int used = UTF8_getc(bytes, length, &c);
    const bool is_good = used > 0 && !is_hidden(c) &&
                         (used > 1 || separators.find(static_cast<char>(c)) == separators.npos);
    const int taken = std::max(used, 1);
    if (is_good) {
      text.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(taken));
    } else {
      text += '?';
    }
    bytes += taken;
    length -= taken;
  }
  return text;
}

std::string name_text(const GENERAL_NAME& entry) {
  if (entry.type == GEN_DNS) {
    const ASN1_STRING* name = entry.d.dNSName;
    return shown(ASN1_STRING_get0_data(name), ASN1_STRING_length(name), ", ");
  }
  if (entry.type != GEN_IPADD) return {};
  const unsigned char* bytes = ASN1_STRING_get0_data(entry.d.iPAddress);
  const int length = ASN1_STRING_length(entry.d.iPAddress);
  if (length != 4 && length != 16) return {};
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(length == 4 ? AF_INET : AF_INET6, bytes, text, sizeof text);
  return text;
}

// The names that the certificate is for, as far as a person wants to read them.
std::string certificate_names(const X509* server) {
  constexpr int kMostNames = 5;
  const std::unique_ptr<GENERAL_NAMES, general_names_deleter> names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(server, NID_subject_alt_name, nullptr, nullptr)));
  std::string list;
  int listed = 0;
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()) && listed < kMostNames; ++i) {
    const std::string text = name_text(*sk_GENERAL_NAME_value(names.get(), i));
    if (text.empty()) continue;
    list += (list.empty() ? "" : ", ") + text;
    ++listed;
  }
  return list.empty() ? "no host" : list;
}

std::string date_text(const ASN1_TIME* time) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
  if (!out || time == nullptr || ASN1_TIME_print(out.get(), time) != 1) return "an unknown date";
  const char* text = nullptr;
  const long length = BIO_get_mem_data(out.get(), &text);
  return {text, static_cast<size_t>(length)};
}

struct description {
  const char* name;
  std::string reason;
};

description describe(int code, const X509* server, const std::string& name) {
  switch (code) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return {TAV_TLS_REFUSED_EXPIRED, "it or an issuer of it has expired (the server's own ends " +
                                           date_text(X509_get0_notAfter(server)) + ")"};
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return {TAV_TLS_REFUSED_NOT_YET,
              "it is not yet valid; is the clock right? (the server's own begins " +
                  date_text(X509_get0_notBefore(server)) + ")"};
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      return {TAV_TLS_REFUSED_SELF_SIGNED, "it is self-signed and not in the trust store"};
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return {TAV_TLS_REFUSED_ISSUER, "its issuer is unknown: not in the trust store"};
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return {TAV_TLS_REFUSED_NAME, "it is for " + certificate_names(server) + ", not for " + name};
    default:
      return {TAV_TLS_REFUSED_OTHER, X509_verify_cert_error_string(code)};
  }
}

std::string day_text(const ASN1_TIME* time) {
  std::tm day{};
  char text[16] = "";
  if (time == nullptr || ASN1_TIME_to_tm(time, &day) != 1) return "unknown";
  std::strftime(text, sizeof text, "%Y-%m-%d", &day);
  return text;
}

// The issuer's common name, or its organisation.
std::string issuer_text(const X509* server) {
  const X509_NAME* issuer = X509_get_issuer_name(server);
  for (const int field : {NID_commonName, NID_organizationName}) {
    const int place = X509_NAME_get_index_by_NID(issuer, field, -1);
    if (place < 0) continue;
    unsigned char* utf8 = nullptr;
    const int length =
        ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(issuer, place)));
    const std::unique_ptr<unsigned char, utf8_deleter> owner(utf8);
    if (length > 0) return shown(utf8, length, "");
  }
  return "unknown";
}

void tell(const X509* server) {
  if (!has_wiretap()) return;
  wiretap(TAV_WIRETAP_TLS_CERTIFICATE,
          certificate_names(server) + "\n" + day_text(X509_get0_notBefore(server)) + "\n" +
              day_text(X509_get0_notAfter(server)) + "\n" + issuer_text(server));
}

// Called for each certificate; the certificates themselves are gone when the handshake has failed.
int note_certificate(int is_good, X509_STORE_CTX* store) {
  const auto* ssl = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* refusal = static_cast<certificate_refusal*>(SSL_get_app_data(ssl));
  const X509* server = X509_STORE_CTX_get0_cert(store);
  if (refusal == nullptr || server == nullptr) return is_good;
  try {
    if (!refusal->is_told) tell(server);
    refusal->is_told = true;
    if (is_good == 0 && refusal->is_check) {
      description found = describe(X509_STORE_CTX_get_error(store), server, refusal->server);
      refusal->name = found.name;
      refusal->reason = std::move(found.reason);
    }
  } catch (const std::bad_alloc&) {
    // The refusal stands, without its reason.
  }
  return refusal->is_check ? is_good : 1;
}

}  // namespace

bool set_server_name(SSL* ssl, const std::string& name, bool check, certificate_refusal& refusal) {
  const std::string bare = bare_name(name);
  if (!bare.empty() && !is_address(bare) && SSL_set_tlsext_host_name(ssl, bare.c_str()) != 1) {
    return false;
  }
  if (check && bare.empty()) return false;
  refusal.server = bare;
  refusal.is_check = check;
  SSL_set_app_data(ssl, &refusal);
  SSL_set_verify(ssl, check ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, note_certificate);
  if (!check) return true;
  if (is_address(bare)) {
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), bare.c_str()) == 1;
  }
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, bare.c_str()) == 1;
}
