#include "trust_hook.h"

#include <cstdlib>

void contract::trust(const std::string& file) {
  setenv("SSL_CERT_FILE", file.c_str(), 1);
  setenv("SSL_CERT_DIR", "/dev/null", 1);
}
