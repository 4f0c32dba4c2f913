#include "web_form.h"

#include "authorize_library.h"
#include "exchange.h"
#include "interrupt.h"
#include "problem.h"
#include "tav_wiretap.h"
#include "tls_advice.h"

namespace tavmail {

namespace {

std::string part_of(const std::string& url, url_part part) {
  return authorize_library::loaded().part_of(url, part);
}

bool is_on_this_machine(const std::string& host) {
  return host == "localhost" || host == "127.0.0.1" || host == "[::1]";
}

problem refused_certificate(const std::string& host, const std::string& details,
                            const std::string& advice) {
  return problem(EX_PROTOCOL, "the certificate of " + host + " was refused: " + details, advice);
}

// What went wrong without an answer, for a person.
problem problem_of(const web_failure& failure, const std::string& host) {
  const std::string details = presentable(failure.details);
  switch (failure.kind) {
    case web_fault::no_such_host:
      return problem(EX_NOHOST, "cannot find the provider \"" + host + "\"",
                     "check its name and the name service");
    case web_fault::bad_certificate:
      return refused_certificate(host, details, "trust its issuer with the key ca_file");
    case web_fault::expired_certificate:
      return refused_certificate(host, details, certificate_advice(TAV_TLS_REFUSED_EXPIRED));
    case web_fault::early_certificate:
      return refused_certificate(host, details, certificate_advice(TAV_TLS_REFUSED_NOT_YET));
    case web_fault::too_late:
      return problem(EX_TEMPFAIL, host + " does not answer in time", "try again later");
    case web_fault::too_long:
      return problem(EX_PROTOCOL, host + " gave an answer that is too long", "check the endpoints");
    case web_fault::other:
      break;
  }
  return problem(EX_TEMPFAIL, "no answer from " + host + " (" + details + ")",
                 "check the endpoints, or try again later");
}

}  // namespace

web_answer send_form(const std::string& url, const form_fields& fields,
                     const web_settings& settings) {
  if (!is_safe_address(url)) throw problem(EX_CONFIG, url + ": expected an address with https");
  const std::string host = host_of(url);
  try {
    return authorize_library::loaded().send(
        {url, is_on_this_machine(host), fields, settings, interrupt_guard::was_pressed});
  } catch (const web_failure& failure) {
    interrupt_guard::check();
    throw problem_of(failure, host);
  }
}

bool is_safe_address(const std::string& url) {
  const std::string scheme = part_of(url, url_part::scheme);
  const bool has_user = !part_of(url, url_part::user).empty();
  return !has_user && (scheme == "https" || (scheme == "http" && is_on_this_machine(host_of(url))));
}

std::string host_of(const std::string& url) { return part_of(url, url_part::host); }

}  // namespace tavmail
