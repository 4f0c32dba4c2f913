// tls_certificate.h - the check of a server's certificate, and what to say when it fails.

#ifndef TLS_CERTIFICATE_H
#define TLS_CERTIFICATE_H

#include <openssl/ssl.h>

#include <string>

#include "tav_wiretap.h"

// Why a certificate was refused. Filled during the handshake.
struct certificate_refusal {
  std::string server;  // the name that was asked for
  const char* name = TAV_TLS_REFUSED_OTHER;
  std::string reason;     // in plain words; "" as long as nothing was refused
  bool is_told = false;   // the observer has been told of the certificate
  bool is_check = false;  // the check counts
};

// Reads the trust store. True when there is a certificate to trust: in the file, or in a folder
// that is looked into again when one is wanted.
bool has_trust_store(SSL_CTX* context);

// Tells the session which server it is for: `server` of the refusal is sent (not an address
// literal) and, with `is_check`, the chain, dates and name are checked. `refusal` outlives the
// handshake. False when that cannot be set up.
bool set_server_name(SSL* ssl, certificate_refusal& refusal);

#endif
