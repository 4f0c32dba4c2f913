// How the ports of this tree are told what to trust; another port has a trust() of its own.

#include <cstdlib>
#include <string>

namespace contract {

void trust(const std::string& file) {
  setenv("SSL_CERT_FILE", file.c_str(), 1);
  setenv("SSL_CERT_DIR", "/dev/null", 1);
}

}  // namespace contract
