#include "test_certificates.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace tav_test {
namespace {

struct ossl_free {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using key_owner = std::unique_ptr<EVP_PKEY, ossl_free>;
using certificate_owner = std::unique_ptr<X509, ossl_free>;
using file_owner = std::unique_ptr<std::FILE, ossl_free>;

constexpr long day = 24L * 3600;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("certificates: cannot ") + what);
}

struct certificate_form {
  const char* common_name;
  long from;  // seconds from now
  long until;
  std::vector<std::pair<int, std::string>> extensions;
};

void add_extension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context = {};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, ossl_free> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "add an extension");
}

// A certificate for `key`; with a null issuer it signs itself.
certificate_owner make_certificate(const certificate_form& form, EVP_PKEY* key, X509* issuer,
                                   EVP_PKEY* issuer_key) {
  certificate_owner made(X509_new());
  X509* const cert = made.get();
  uint64_t serial = 0;
  require(cert && RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1,
          "make a certificate");
  X509_set_version(cert, X509_VERSION_3);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert), serial >> 1 | 1);
  X509_gmtime_adj(X509_getm_notBefore(cert), form.from);
  X509_gmtime_adj(X509_getm_notAfter(cert), form.until);
  X509_set_pubkey(cert, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(form.common_name), -1, -1, 0);
  X509_set_issuer_name(cert, X509_get_subject_name(issuer ? issuer : cert));
  for (const auto& [nid, value] : form.extensions)
    add_extension(cert, issuer ? issuer : cert, nid, value);
  require(X509_sign(cert, issuer ? issuer_key : key, EVP_sha256()) > 0, "sign");
  return made;
}

std::string alternative_names(const std::vector<std::string>& names) {
  std::string text;
  unsigned char binary[16];
  for (const std::string& name : names) {
    const bool address = inet_pton(AF_INET, name.c_str(), binary) == 1 ||
                         inet_pton(AF_INET6, name.c_str(), binary) == 1;
    text += (text.empty() ? "" : ",") + std::string(address ? "IP:" : "DNS:") + name;
  }
  return text;
}

file_owner create(const std::string& path, mode_t mode) {
  unlink(path.c_str());  // an old file would keep its own mode
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  require(fd >= 0, ("create " + path).c_str());
  return file_owner(fdopen(fd, "w"));
}

void write_certificate(const std::string& path, X509* certificate) {
  const file_owner file = create(path, 0644);
  require(PEM_write_X509(file.get(), certificate) == 1, "write a certificate");
}

}  // namespace

certificate_files make_certificates(const std::string& directory,
                                    const std::vector<std::string>& names, certificate_kind kind) {
  const bool expired = kind == certificate_kind::expired;
  const certificate_form authority_form = {"Test Authority",
                                           -30 * day,
                                           30 * day,
                                           {{NID_basic_constraints, "critical,CA:TRUE"},
                                            {NID_key_usage, "critical,keyCertSign"},
                                            {NID_subject_key_identifier, "hash"}}};
  const bool alone = kind == certificate_kind::self_signed;
  certificate_form server_form = {
      "Test Server",
      (expired ? -20 : -1) * day,
      (expired ? -10 : 20) * day,
      {{NID_subject_alt_name,
        kind == certificate_kind::wrong_name ? "DNS:wrong.example" : alternative_names(names)},
       {NID_key_usage, "critical,digitalSignature"},
       {NID_ext_key_usage, "serverAuth"}}};
  if (!alone) server_form.extensions.emplace_back(NID_authority_key_identifier, "keyid:always");

  const key_owner authority_key(EVP_EC_gen("P-256"));
  const key_owner server_key(EVP_EC_gen("P-256"));
  require(authority_key && server_key, "make a key");
  const auto authority = make_certificate(authority_form, authority_key.get(), nullptr, nullptr);
  const auto server = make_certificate(server_form, server_key.get(),
                                       alone ? nullptr : authority.get(), authority_key.get());

  const certificate_files files = {directory + "/ca.pem", directory + "/server.pem",
                                   directory + "/server.key"};
  write_certificate(files.ca, authority.get());
  write_certificate(files.certificate, server.get());
  const file_owner key_file = create(files.key, 0600);
  require(PEM_write_PrivateKey(key_file.get(), server_key.get(), nullptr, nullptr, 0, nullptr,
                               nullptr) == 1,
          "write a key");
  return files;
}

}  // namespace tav_test
