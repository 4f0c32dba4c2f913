#include "outcome.h"

#include <string>

namespace tavmail {

using namespace quorvelmida;

namespace {

// What the step was, after the command that was last sent.
std::string step(const dialogue_view& view) {
  if (!view.latest().tls_failure.empty()) return "the TLS handshake";
  if (view.decisive() == nullptr) return "the connection";
  const std::string& verb = view.decisive()->verb;
  if (verb.empty()) return "the greeting";
  if (verb == "MAIL") return "the sender";
  if (verb == "RCPT") return "a recipient";
  if (verb == "DATA") return "the start of the mail";
  if (verb == ".") return "the mail";
  if (verb == "AUTH") return "the login";
  if (verb == "QUIT") return "the goodbye";
  if (verb == "USER" || verb == "PASS" || verb == "APOP") return "the login";
  if (verb == "RETR" || verb == "TOP") return "a mail";
  if (verb == "DELE") return "a deletion";
  return verb;
}

std::string said(const dialogue_view& view) {
  constexpr size_t kLongestQuote = 300;
  std::string reply = reply_text(view.decisive());
  if (reply.size() > kLongestQuote) reply = reply.substr(0, kLongestQuote) + "...";
  return reply.empty() ? "" : "; the server said: " + presentable(reply);
}

// What helps against a refused certificate.
std::string certificate_advice(const std::string& refusal) {
  const auto tells = [&](const char* word) { return refusal.find(word) != std::string::npos; };
  if (tells("issuer is unknown") || tells("self-signed")) {
    return "trust its issuer with --ca-file FILE";
  }
  if (tells("not yet valid")) return "set this machine's clock";
  if (tells("expired")) return "have it renewed by whoever runs the server";
  if (tells("it is for")) return "use the name that the certificate is for";
  return "ask whoever runs the server";
}

// A server that is silent or talks nonsense often expects the other TLS mode.
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

// What went wrong in a handshake, and what helps. `failure` is that of the wire tap.
std::string explain_handshake(const std::string& failure, const endpoint_options& options) {
  static constexpr struct {
    const char* failure;
    const char* from_the_start;
    const char* after_the_upgrade;
  } kTexts[] = {
      {TAV_TLS_FAILED_CLEAR, "it begins in clear text; check the port, or try --tls starttls",
       "more in clear text came behind its reply, perhaps put there by somebody on the way; try "
       "--tls implicit with its port"},
      {TAV_TLS_FAILED_NOT_TLS, "what it answers is no TLS; check the port, or try --tls starttls",
       "what it answers is no TLS; try --tls implicit with its port"},
      {TAV_TLS_FAILED_TIMEOUT,
       "it fell silent in the handshake; check the port, or try --tls starttls",
       "it fell silent in the handshake; try again later"},
  };
  if (failure == TAV_TLS_FAILED_VERSION) {
    return options.oldest_tls == "1.3"
               ? "it speaks only versions older than TLS 1.3; leave out --tls-min 1.3"
               : "it speaks only versions older than TLS 1.2; ask whoever runs the server to renew "
                 "it";
  }
  for (const auto& entry : kTexts) {
    if (failure != entry.failure) continue;
    return options.tls == tls_mode::implicit ? entry.from_the_start : entry.after_the_upgrade;
  }
  if (failure == TAV_TLS_FAILED_CUT) {
    return "it cut the connection in the handshake; ask whoever runs the server for its log";
  }
  return failure.empty()
             ? "it cannot be started here; set TAV_DBGLOG=stderr to see the log"
             : "the handshake failed (" + failure + "); ask whoever runs the server for its log";
}

problem explain_reply(const dialogue_view& view, const server_options& options) {
  const exchange* last = view.decisive();
  if (last != nullptr && last->verb == "EHLO" && last->is_success() &&
      options.tls == tls_mode::starttls && !last->under_tls) {
    return problem(EX_PROTOCOL,
                   options.server +
                       " does not offer STARTTLS; try --tls implicit with its port, or "
                       "--tls none if the network is trusted");
  }
  if (last == nullptr || last->reply.empty()) {
    return problem(EX_PROTOCOL, options.place() + " closed the connection at " + step(view) + "; " +
                                    mode_advice(options));
  }
  return problem(EX_UNAVAILABLE, options.place() + " refused " + step(view) + said(view));
}

// False before the first connection, and between a POP3 login and the connection to send over.
bool is_talking(const dialogue_view& view) {
  return view.decisive() != nullptr && view.decisive()->verb != "QUIT";
}

// What is the same for every protocol.
problem explain_connection(TAV_EML_RESULT result, const dialogue_view& view,
                           const endpoint_options& options) {
  const std::string where = options.place();
  switch (result) {
    case TAV_EML_ERR_PARAM:
      if (is_talking(view)) {
        return problem(EX_DATAERR, "a value is too long for its command at " + step(view) +
                                       "; with a login, user or password");
      }
      return problem(EX_NOHOST, "cannot find the server \"" + options.server +
                                    "\"; check its name and the name service");
    case TAV_EML_ERR_CONNECT:
      return problem(EX_UNAVAILABLE, where + " refuses connections; check server name and port");
    case TAV_EML_ERR_CONNECT_TIMEOUT:
      return problem(EX_TEMPFAIL, where + " does not answer; check name, port and firewall");
    case TAV_EML_ERR_TRANSFER_TIMEOUT:
      return problem(EX_TEMPFAIL, where + " fell silent at " + step(view) + "; " +
                                      (reply_text(view.decisive()).empty() ? mode_advice(options)
                                                                           : "try again later"));
    case TAV_EML_ERR_AUTH:
      return problem(EX_NOPERM, where + " refused the login of " + options.user +
                                    "; check user and password" + said(view));
    case TAV_EML_ERR_TLS_CONNECT_REFUSED:
      return problem(EX_PROTOCOL, "the certificate of " + options.server +
                                      " was refused: " + view.latest().tls_refusal + "; " +
                                      certificate_advice(view.latest().tls_refusal));
    case TAV_EML_ERR_TLS_INIT:
    case TAV_EML_ERR_TLS_INIT_RESOURCE:
    case TAV_EML_ERR_TLS_CONNECT:
      return problem(EX_PROTOCOL, "no TLS with " + where + ": " +
                                      explain_handshake(view.latest().tls_failure, options));
    case TAV_EML_ERR_NO_MEMORY:
      return problem(EX_OSERR, "out of memory");
    default:
      return problem(EX_SOFTWARE, "it failed (set TAV_DBGLOG=stderr to see the log)");
  }
}

problem explain_receiving(TAV_EML_RESULT result, const dialogue_view& view,
                          const mailbox_options& options) {
  const std::string where = options.place();
  const exchange* last = view.decisive();
  const bool is_silent = last == nullptr || last->reply.empty();
  const bool is_upgrade = options.tls == tls_mode::starttls && last != nullptr;
  // A refused CAPA is waited out, because the reply might have gone on.
  const bool is_without_capa = is_upgrade && last->verb == "CAPA" && !is_silent &&
                               last->judged == verdict::refused && result == TAV_EML_ERR_TRANSFER_TIMEOUT;
  if (is_without_capa) result = TAV_EML_ERR_TLS_CONNECT;
  switch (result) {
    case TAV_EML_ERR_TLS_CONNECT:
      if (is_upgrade && last->verb == "CAPA") {
        return problem(EX_PROTOCOL, options.server +
                                        " does not offer STLS; try --tls implicit with its port, "
                                        "or --tls none if the network is trusted");
      }
      break;
    case TAV_EML_ERR_UNKNOWN:
      if (is_upgrade && last->verb == "STLS") {
        return view.latest().tls_refusal.empty()
                   ? explain_connection(TAV_EML_ERR_TLS_CONNECT, view, options)
                   : explain_connection(TAV_EML_ERR_TLS_CONNECT_REFUSED, view, options);
      }
      break;
    case TAV_EML_ERR_TRANSFER:
    case TAV_EML_ERR_NOT_CONNECTED:
      return problem(EX_TEMPFAIL,
                     "the connection to " + where + " broke at " + step(view) + "; try again");
    case TAV_EML_ERR_REPLY:
      if (options.apop && last != nullptr && last->verb.empty() && !is_silent) {
        return problem(EX_UNAVAILABLE,
                       where + " does not offer APOP; log in without --apop, under TLS");
      }
      if (is_silent) {
        return problem(EX_PROTOCOL, where + " closed the connection at " + step(view) + "; " +
                                        mode_advice(options));
      }
      return problem(EX_UNAVAILABLE, where + " refused " + step(view) + said(view));
    default:
      break;
  }
  return explain_connection(result, view, options);
}

problem explain_sending(TAV_EML_RESULT result, const dialogue_view& view,
                        const server_options& options) {
  const std::string where = options.place();
  if (std::string(outcome_of(view)) == "unknown") {
    return problem(EX_TEMPFAIL,
                   "the connection to " + where +
                       " broke after the whole mail was sent: it may have been delivered; ask the "
                       "recipient before sending it again");
  }
  // With a POP3 login before sending, what failed may have been that.
  if (view.is_pop3()) {
    return explain_receiving(result, view, options.mailbox);
  }
  switch (result) {
    case TAV_EML_ERR_TRANSFER:
      return problem(EX_TEMPFAIL, "the connection to " + where + " broke at " + step(view) +
                                      "; nothing was delivered, try again");
    case TAV_EML_ERR_REPLY_TEMPORARY:
      return problem(EX_TEMPFAIL,
                     where + " refused " + step(view) + " for now, try again later" + said(view));
    case TAV_EML_ERR_REPLY:
      return explain_reply(view, options);
    case TAV_EML_ERR_AUTH_METHOD:
      return problem(EX_UNAVAILABLE,
                     where +
                         " offers no login that works here (PLAIN, LOGIN, CRAM-MD5, "
                         "DIGEST-MD5); does it want TLS first, or no login?");
    case TAV_EML_ERR_SIZE_LIMIT:
      return problem(EX_DATAERR, "the mail is larger than --size-limit; send less or raise it");
    default:
      return explain_connection(result, view, options);
  }
}

problem told(problem cause, TAV_EML_RESULT result, const dialogue_view& view) {
  return cause.at(step(view), reply_text(view.decisive()), result_name(result));
}

}  // namespace

const char* result_name(TAV_EML_RESULT result) {
  switch (result) {
#define NAME(code) \
  case code:       \
    return #code
    NAME(TAV_EML_OK);
    NAME(TAV_EML_ERR_PARAM);
    NAME(TAV_EML_ERR_AUTH);
    NAME(TAV_EML_ERR_NO_RCPT);
    NAME(TAV_EML_ERR_NO_FROM);
    NAME(TAV_EML_ERR_CONNECT);
    NAME(TAV_EML_ERR_CONNECT_TIMEOUT);
    NAME(TAV_EML_ERR_TRANSFER);
    NAME(TAV_EML_ERR_TRANSFER_TIMEOUT);
    NAME(TAV_EML_ERR_SIZE_LIMIT);
    NAME(TAV_EML_ERR_REPLY);
    NAME(TAV_EML_ERR_REPLY_TEMPORARY);
    NAME(TAV_EML_ERR_AUTH_METHOD);
    NAME(TAV_EML_ERR_TLS_INIT);
    NAME(TAV_EML_ERR_TLS_INIT_RESOURCE);
    NAME(TAV_EML_ERR_TLS_CONNECT);
    NAME(TAV_EML_ERR_TLS_CONNECT_REFUSED);
    NAME(TAV_EML_ERR_NOT_CONNECTED);
    NAME(TAV_EML_ERR_NO_MEMORY);
    NAME(TAV_EML_ERR_SOCKET);
    NAME(TAV_EML_ERR_UNKNOWN);
#undef NAME
  }
  return "";
}

const char* outcome_of(const dialogue_view& view) {
  if (view.was_accepted()) return "delivered";
  const exchange* last = view.decisive();
  if (last != nullptr && last->is_no()) return "refused";
  return view.end_was_sent() ? "unknown" : "not sent";
}

problem explain(TAV_EML_RESULT result, const dialogue_view& view, const server_options& options) {
  return told(explain_sending(result, view, options), result, view);
}

problem explain_mailbox(TAV_EML_RESULT result, const dialogue_view& view,
                        const mailbox_options& options) {
  return told(explain_receiving(result, view, options), result, view);
}

}  // namespace tavmail
