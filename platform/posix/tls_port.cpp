#include "tls_port.h"

#include "tlsw.h"
#include "wiretap.h"

bool read_options(const uint8_t (&option)[5], tls_options& options) {
  constexpr uint8_t kTls12 = 3;
  constexpr uint8_t kTls13 = 4;
  options.check = option[0] == 1;
  options.newest = option[1];
  options.oldest = option[3] != 0 ? option[3] : kTls12;
  const bool is_newest = option[1] == 0 || option[1] == kTls12 || option[1] == kTls13;
  return option[0] <= 1 && is_newest && option[2] == 0 && option[3] <= kTls13 && option[4] == 0;
}

int32_t handshake_started(const std::string& version, const std::string& cipher) {
  TLS_LOG(4, "tlsw: %s with %s\n", version.c_str(), cipher.c_str());
  wiretap(TAV_WIRETAP_TLS_STARTED, version + " " + cipher);
  return TLSW_OK;
}

int32_t handshake_failed(int32_t result, const std::string& reason) {
  TLS_LOG(0, "tlsw: handshake failed: %s\n", reason.c_str());
  wiretap(TAV_WIRETAP_TLS_FAILED, reason);
  return result;
}

int32_t certificate_refused(const char* name, const std::string& sentence) {
  TLS_LOG(0, "tlsw: certificate refused: %s\n", sentence.c_str());
  wiretap(TAV_WIRETAP_TLS_REFUSED, name + ("\n" + sentence));
  return TLSW_ERR_CERTIFICATE;
}
