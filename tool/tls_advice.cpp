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

finding explain_version(const std::string& place, const endpoint_options& options) {
  if (options.oldest_tls == "1.3") {
    return {EX_PROTOCOL, place + "it speaks only versions older than TLS 1.3",
            "leave out --tls-min 1.3"};
  }
  return {EX_PROTOCOL, place + "it speaks only versions older than TLS 1.2",
          "ask whoever runs the server to renew it"};
}

// An alert says little: servers of before TLS 1.3 tell with the same one that they do not know it.
std::string refusal_advice(const std::string& failure, const endpoint_options& options) {
  if (options.oldest_tls == "1.3") {
    return std::string("the server may not speak TLS 1.3: leave out --tls-min 1.3; otherwise ") +
           kAskForLog;
  }
  if (!says(failure, "handshake failure") && !says(failure, "certificate")) return kAskForLog;
  return "the server may want a client certificate, which tavmail does not have, or a cipher that "
         "is not used here; ask whoever runs it";
}

finding explain_handshake(const std::string& failure, const endpoint_options& options) {
  const std::string place = "no TLS with " + options.place() + ": ";
  const bool is_upgrade = options.tls != tls_mode::implicit;
  if (failure == TAV_TLS_FAILED_VERSION) return explain_version(place, options);
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

}  // namespace

std::string certificate_advice(const std::string& refusal) {
  const auto begins = [&](const char* start) { return refusal.rfind(start, 0) == 0; };
  // Names of a certificate are part of the text: how it begins tells.
  if (begins("it is for")) {
    return "give --server the name that the certificate is for, or have one made for the name that "
           "is used";
  }
  if (begins("it is self-signed")) return "trust it with --ca-file FILE, the certificate itself";
  if (begins("its issuer is unknown")) return "trust its issuer with --ca-file FILE";
  if (begins("it is not yet valid")) return "set this machine's clock";
  if (begins("it or an issuer of it has expired")) {
    return "have it renewed by whoever runs the server; is this machine's clock right?";
  }
  return "ask whoever runs the server";
}

finding explain_tls(const dialogue_view& view, const endpoint_options& options) {
  const std::string& refusal = view.latest().tls_refusal;
  if (!refusal.empty()) {
    return {EX_PROTOCOL, "the certificate of " + options.server + " was refused: " + refusal,
            certificate_advice(refusal), false};
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
