#include "tls_certificate.h"

#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <new>
#include <sstream>
#include <string_view>
#include <system_error>

#include "certificate_text.h"
#include "wiretap.h"

namespace {

struct general_names_deleter {
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

struct utf8_deleter {
  void operator()(unsigned char* text) const { OPENSSL_free(text); }
};

std::string_view bytes_of(const ASN1_STRING* string) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
          static_cast<size_t>(ASN1_STRING_length(string))};
}

void add_names(const X509* server, certificate_text& text) {
  const std::unique_ptr<GENERAL_NAMES, general_names_deleter> names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(server, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME& entry = *sk_GENERAL_NAME_value(names.get(), i);
    if (entry.type == GEN_DNS) text.add_host(bytes_of(entry.d.dNSName));
    if (entry.type == GEN_IPADD) text.add_address(bytes_of(entry.d.iPAddress));
  }
}

// The issuer's common name, or its organisation.
void add_issuer(const X509* server, certificate_text& text) {
  const X509_NAME* issuer = X509_get_issuer_name(server);
  for (const int field : {NID_organizationName, NID_commonName}) {
    const int place = X509_NAME_get_index_by_NID(issuer, field, -1);
    if (place < 0) continue;
    unsigned char* utf8 = nullptr;
    const int length =
        ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(issuer, place)));
    const std::unique_ptr<unsigned char, utf8_deleter> owner(utf8);
    if (length > 0) text.set_issuer({reinterpret_cast<char*>(utf8), static_cast<size_t>(length)});
  }
}

certificate_text text_of(const X509* server) {
  certificate_text text;
  add_names(server, text);
  std::tm first{}, last{};
  const bool has_first = ASN1_TIME_to_tm(X509_get0_notBefore(server), &first) == 1;
  const bool has_last = ASN1_TIME_to_tm(X509_get0_notAfter(server), &last) == 1;
  text.set_days(has_first ? &first : nullptr, has_last ? &last : nullptr);
  add_issuer(server, text);
  return text;
}

const char* name_of(int code) {
  switch (code) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return TAV_TLS_REFUSED_EXPIRED;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return TAV_TLS_REFUSED_NOT_YET;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      return TAV_TLS_REFUSED_SELF_SIGNED;
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return TAV_TLS_REFUSED_ISSUER;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return TAV_TLS_REFUSED_NAME;
    default:
      return TAV_TLS_REFUSED_OTHER;
  }
}

// Called for each certificate; the certificates themselves are gone when the handshake has failed.
int note_certificate(int is_good, X509_STORE_CTX* store) {
  const auto* ssl = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* refusal = static_cast<certificate_refusal*>(SSL_get_app_data(ssl));
  const X509* server = X509_STORE_CTX_get0_cert(store);
  if (refusal == nullptr || server == nullptr) return is_good;
  try {
    if (!refusal->is_told && has_wiretap()) text_of(server).tell();
    refusal->is_told = true;
    if (is_good == 0 && refusal->is_check) {
      const int code = X509_STORE_CTX_get_error(store);
      refusal->name = name_of(code);
      refusal->reason = text_of(server).refusal(refusal->name, refusal->server,
                                                X509_verify_cert_error_string(code));
    }
  } catch (const std::bad_alloc&) {
    // The refusal stands, without its reason.
  }
  return refusal->is_check ? is_good : 1;
}

// A folder of certificates has them by the hashes of their names: "5cd81ad7.0".
bool has_certificates(const std::string& folder) {
  std::error_code error;
  const std::filesystem::directory_iterator entries(folder, error);
  return std::any_of(begin(entries), end(entries), [](const auto& entry) {
    const std::string name = entry.path().filename();
    return name.find_first_not_of("0123456789abcdef") == 8 && name[8] == '.';
  });
}

}  // namespace

bool has_trust_store(SSL_CTX* context) {
  if (SSL_CTX_set_default_verify_paths(context) != 1) return false;
  const X509_STORE* store = SSL_CTX_get_cert_store(context);
  if (sk_X509_OBJECT_num(X509_STORE_get0_objects(store)) > 0) return true;
  const char* const named = std::getenv(X509_get_default_cert_dir_env());
  std::istringstream folders(named != nullptr ? named : X509_get_default_cert_dir());
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (has_certificates(folder)) return true;
  }
  return false;
}

bool set_server_name(SSL* ssl, certificate_refusal& refusal) {
  const std::string& name = refusal.server;
  const bool is_address = is_address_literal(name);
  if (!name.empty() && !is_address && SSL_set_tlsext_host_name(ssl, name.c_str()) != 1) {
    return false;
  }
  SSL_set_app_data(ssl, &refusal);
  SSL_set_verify(ssl, refusal.is_check ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, note_certificate);
  if (!refusal.is_check) return true;
  if (is_address) return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1;
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, name.c_str()) == 1;
}
