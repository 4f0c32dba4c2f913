#include "certificate.h"

#include <arpa/inet.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <stdexcept>
#include <utility>

namespace mailhost {
namespace {

constexpr long day = 24L * 3600;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("cannot ") + what);
}

struct certificate_form {
  const char* common_name;
  long from, until;  // seconds from now
  std::vector<std::pair<int, std::string>> extensions;
};

void add_extension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context = {};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, x509_free> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  require(extension && X509_add_ext(certificate, extension.get(), -1) == 1,
          "put the names into the certificate");
}

// A certificate for `key`; with a null issuer it signs itself.
certificate_owner make_certificate(const certificate_form& form, EVP_PKEY* key, X509* issuer,
                                   EVP_PKEY* issuer_key) {
  certificate_owner made(X509_new());
  X509* const certificate = made.get();
  uint64_t serial = 0;
  require(certificate && RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1,
          "make a certificate");
  if (issuer == nullptr) issuer = certificate;
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1 | 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), form.from);
  X509_gmtime_adj(X509_getm_notAfter(certificate), form.until);
  X509_set_pubkey(certificate, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(form.common_name), -1, -1, 0);
  X509_set_issuer_name(certificate, X509_get_subject_name(issuer));
  for (const auto& [nid, value] : form.extensions) add_extension(certificate, issuer, nid, value);
  require(X509_sign(certificate, issuer_key, EVP_sha256()) > 0, "sign a certificate");
  return made;
}

std::string alternative_names(const std::vector<std::string>& names, bool is_all_hosts) {
  std::string text;
  unsigned char binary[16];
  for (const std::string& name : names) {
    const bool is_address = !is_all_hosts && (inet_pton(AF_INET, name.c_str(), binary) == 1 ||
                                              inet_pton(AF_INET6, name.c_str(), binary) == 1);
    text += (text.empty() ? "" : ",") + std::string(is_address ? "IP:" : "DNS:") + name;
  }
  return text;
}

}  // namespace

identity make_identity(const std::vector<std::string>& names, certificate_fault fault) {
  const certificate_form authority_form = {"tavmail-host practice authority",
                                           -day,
                                           30 * day,
                                           {{NID_basic_constraints, "critical,CA:TRUE"},
                                            {NID_key_usage, "critical,keyCertSign"},
                                            {NID_subject_key_identifier, "hash"}}};
  const bool is_expired = fault == certificate_fault::expired;
  const bool is_alone = fault == certificate_fault::self_signed;
  const bool is_named = fault != certificate_fault::wrong_name;
  const bool is_early = fault == certificate_fault::not_yet_valid;
  const bool is_all_hosts = fault == certificate_fault::address_as_name;
  certificate_form form = {"tavmail-host",
                           is_early ? day : -day,
                           is_expired ? -60 : 30 * day,
                           {{NID_subject_alt_name, is_named ? alternative_names(names, is_all_hosts)
                                                            : "DNS:wrong.example"},
                            {NID_key_usage, "critical,digitalSignature"},
                            {NID_ext_key_usage, "serverAuth"}}};
  if (!is_alone) form.extensions.emplace_back(NID_authority_key_identifier, "keyid:always");

  const key_owner authority_key(EVP_EC_gen("P-256"));
  identity made;
  made.key.reset(EVP_EC_gen("P-256"));
  require(authority_key && made.key, "make a key");
  made.authority =
      make_certificate(authority_form, authority_key.get(), nullptr, authority_key.get());
  made.certificate =
      make_certificate(form, made.key.get(), is_alone ? nullptr : made.authority.get(),
                       is_alone ? made.key.get() : authority_key.get());
  return made;
}

std::string to_pem(const X509* certificate) {
  const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new(BIO_s_mem()), BIO_free);
  require(memory && PEM_write_bio_X509(memory.get(), certificate) == 1, "write a certificate");
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

}  // namespace mailhost
