// certificate.h - a key and a certificate for the host, made on the spot, with an authority of
// their own that signs them.

#ifndef MAILHOST_CERTIFICATE_H
#define MAILHOST_CERTIFICATE_H

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace mailhost {

struct x509_free {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using key_owner = std::unique_ptr<EVP_PKEY, x509_free>;
using certificate_owner = std::unique_ptr<X509, x509_free>;

struct identity {
  certificate_owner authority, certificate;
  key_owner key;
};

// What a client that checks certificates has to notice.
enum class certificate_fault {
  none,
  expired,
  wrong_name,
  self_signed,
  not_yet_valid,
  address_as_name,  // an address stands among the host names
};

// For these host names and addresses. Throws std::runtime_error.
identity make_identity(const std::vector<std::string>& names, certificate_fault fault);

// The form that clients take as a file of authorities.
std::string to_pem(const X509* certificate);

}  // namespace mailhost

#endif
