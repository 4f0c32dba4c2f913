#include "tls_advice.h"

#include <algorithm>

namespace tavmail {

namespace {

constexpr char kAskForLog[] = "ask whoever runs the server for its log";

// What went wrong in a handshake; in the mode "implicit", and after an upgrade.
struct failure_texts {
  const char* failure;
  const char* cause;
  const char* remedy_from_the_start;
  const char* remedy_after_the_upgrade;
};
constexpr failure_texts kFailures[] = {
    {TAV_TLS_FAILED_CLEAR, "it begins in clear text", "check the port, or try --tls starttls",
     "perhaps somebody on the way put it there; try --tls implicit with its port"},
    {TAV_TLS_FAILED_NOT_TLS, "its answer is not TLS", "check the port, or try --tls starttls",
     "try --tls implicit with its port"},
    {TAV_TLS_FAILED_TIMEOUT, "it fell silent in the handshake",
     "check the port, or try --tls starttls", "try again later"},
    {TAV_TLS_FAILED_CUT, "it cut the connection in the handshake", kAskForLog, kAskForLog},
};

// What lies with this machine as much as with the server.
bool explain_port(const std::string& failure, const endpoint_options& options, finding& found) {
  const std::string place = "no TLS with " + options.place() + ": ";
  const bool is_strict = options.oldest_tls == "1.3";
  if (failure == TAV_TLS_FAILED_VERSION) {
    found = {EX_PROTOCOL, place + "this program and the server have no TLS version in common",
             is_strict ? "leave out --tls-min 1.3"
                       : "one of them is too old; ask whoever runs the server for its versions"};
  } else if (failure == TAV_TLS_FAILED_OPTIONS) {
    found = {EX_CONFIG, place + "this program does not have TLS " + options.oldest_tls,
             "leave out --tls-min " + options.oldest_tls};
  } else if (failure == TAV_TLS_FAILED_NO_STORE) {
    found = {EX_CONFIG, place + "there is no trust store to check the certificate with",
             "install the package ca-certificates, or give --ca-file FILE"};
  } else {
    return false;
  }
  return true;
}

// An alert says little: servers of before TLS 1.3 tell with the same one that they do not know it.
std::string refusal_advice(const std::string& failure, const endpoint_options& options) {
  if (options.oldest_tls == "1.3") {
    return std::string("the server may not speak TLS 1.3: leave out --tls-min 1.3; otherwise ") +
           kAskForLog;
  }
  if (failure != TAV_TLS_FAILED_DECLINED) return kAskForLog;
  return "the server may want a client certificate, which tavmail does not have, or a cipher that "
         "is not used here; ask whoever runs it";
}

finding explain_handshake(const std::string& failure, const endpoint_options& options) {
  const std::string place = "no TLS with " + options.place() + ": ";
  const bool is_upgrade = options.tls != tls_mode::implicit;
  finding found{};
  if (explain_port(failure, options, found)) return found;
  for (const failure_texts& texts : kFailures) {
    if (failure != texts.failure) continue;
    const bool is_clear = is_upgrade && failure == TAV_TLS_FAILED_CLEAR;
    return {EX_PROTOCOL,
            place + (is_clear ? "more in clear text came after its reply" : texts.cause),
            is_upgrade ? texts.remedy_after_the_upgrade : texts.remedy_from_the_start};
  }
  if (failure.empty()) {
    return {EX_PROTOCOL, place + "it cannot be started here",
            "set TAV_DBGLOG=stderr to see the log"};
  }
  return {EX_PROTOCOL, place + "the handshake failed (" + failure + ")",
          refusal_advice(failure, options)};
}

// What helps against a refused certificate.
struct refusal_remedy {
  const char* refused;
  const char* remedy;
};
constexpr refusal_remedy kRemedies[] = {
    {TAV_TLS_REFUSED_NAME,
     "give --server the name that the certificate is for, or have one made for the name that is "
     "used"},
    {TAV_TLS_REFUSED_SELF_SIGNED, "trust it with --ca-file FILE, the certificate itself"},
    {TAV_TLS_REFUSED_ISSUER, "trust its issuer with --ca-file FILE"},
    {TAV_TLS_REFUSED_NOT_YET, "set this machine's clock"},
    {TAV_TLS_REFUSED_EXPIRED,
     "have it renewed by whoever runs the server; is this machine's clock right?"},
};

}  // namespace

std::string certificate_advice(const std::string& refused) {
  for (const refusal_remedy& entry : kRemedies) {
    if (refused == entry.refused) return entry.remedy;
  }
  return "ask whoever runs the server";
}

finding explain_tls(const dialogue_view& view, const endpoint_options& options) {
  const connection& latest = view.latest();
  if (!latest.tls_refused.empty()) {
    return {EX_PROTOCOL,
            "the certificate of " + options.server + " was refused: " + latest.tls_refusal,
            certificate_advice(latest.tls_refused), false};
  }
  finding found = explain_handshake(view.latest().tls_failure, options);
  found.is_said_by_server = false;
  return found;
}

std::string mode_advice(const endpoint_options& options) {
  switch (options.tls) {
    case tls_mode::implicit:
      return "does the port speak TLS from the start? try --tls starttls";
    case tls_mode::none:
      return "does the port want TLS? try --tls implicit or starttls";
    default:
      return "does the port speak TLS from the start? try --tls implicit";
  }
}

bool is_cut_after_handshake(const dialogue_view& view) {
  const auto& all = view.exchanges();
  if (all.empty() || view.decisive() != &all.back() || view.latest().tls.empty()) return false;
  const exchange& last = all.back();
  if (last.verb == "STARTTLS" || last.verb == "STLS") return true;
  const bool is_first = last.verb.empty() || all.size() < 2 || !all[all.size() - 2].under_tls;
  return last.under_tls && is_first && last.lines == 0;
}

bool wants_tls(const exchange& entry) {
  constexpr const char* kWords[] = {"TLS", " SSL", "encrypt", "plaintext", "secure"};
  if (entry.under_tls || !entry.is_no()) return false;
  const std::string reply = reply_text(&entry);
  if (reply.rfind("538", 0) == 0) return true;
  return std::any_of(std::begin(kWords), std::end(kWords),
                     [&](const char* word) { return says(reply, word); });
}

}  // namespace tavmail
