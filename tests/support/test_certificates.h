// test_certificates.h - fresh keys and certificates for servers on the loopback interface.

#ifndef TESTS_SUPPORT_TEST_CERTIFICATES_H
#define TESTS_SUPPORT_TEST_CERTIFICATES_H

#include <string>
#include <vector>

namespace tav_test {

struct certificate_files {
  std::string ca;           // trust store with the one authority
  std::string certificate;  // of the server
  std::string key;          // readable by its owner only
};

enum class certificate_kind {
  good,
  expired,
  wrong_name,   // for wrong.example instead of the names
  self_signed,  // not issued by the authority
};

// Makes an authority and a server certificate for `names` (host names and addresses) and writes
// ca.pem, server.pem and server.key into `directory`, which exists. Throws std::runtime_error.
certificate_files make_certificates(const std::string& directory,
                                    const std::vector<std::string>& names = {"localhost",
                                                                             "127.0.0.1"},
                                    certificate_kind kind = certificate_kind::good);

}  // namespace tav_test

#endif
