// tls_port.h - what TLS wrappers do alike, whatever library they use.

#ifndef TLS_PORT_H
#define TLS_PORT_H

#include <cstdint>
#include <string>

#include "tav_dbglog.h"

#define TLS_LOG(level, ...) tav_dbglog_common::get_instance()->tracer("TLSW", level, __VA_ARGS__)

// The option bytes of tlsw.h. Versions are numbered as there, 4 for TLS 1.3.
struct tls_options {
  bool check = false;
  uint8_t oldest = 3;
  uint8_t newest = 0;  // 0: the newest there is
};

// False when a value is not listed there.
bool read_options(const uint8_t (&option)[5], tls_options& options);

// How a handshake ended, or that it did not begin: for the log and for the observer
// (tav_wiretap.h). The result is that of tlsw_connect_timeo.
int32_t handshake_started(const std::string& version, const std::string& cipher);
int32_t handshake_failed(int32_t result, const std::string& reason);
int32_t certificate_refused(const char* name, const std::string& sentence);

#endif
