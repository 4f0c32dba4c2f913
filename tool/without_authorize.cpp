// What stands in for web_form.cpp and qr_code.cpp where the build lacks libcurl or libqrencode.

#include "problem.h"
#include "qr_code.h"
#include "web_form.h"

namespace tavmail {

namespace {

[[noreturn]] void refuse() {
  throw problem(EX_UNAVAILABLE,
                "this tavmail was built without libcurl and libqrencode, which authorize needs");
}

}  // namespace

web_answer send_form(const std::string&, const form_fields&, const web_settings&) { refuse(); }

bool is_safe_address(const std::string&) { refuse(); }

std::string host_of(const std::string&) { refuse(); }

std::string qr_code(const std::string&, int) { return {}; }

}  // namespace tavmail
