// tls_certificate.h - the check of a server's certificate, and what to say when it fails.

#ifndef TLS_CERTIFICATE_H
#define TLS_CERTIFICATE_H

#include <openssl/ssl.h>

#include <string>

// Tells the session which server it is for: the name is sent (not an address literal) and, with
// `check`, the chain, dates and name are checked. False when that cannot be set up.
bool set_server_name(SSL* ssl, const std::string& name, bool check);

// Why the certificate was refused, in plain words.
std::string describe_refusal(SSL* ssl, const std::string& name);

#endif
