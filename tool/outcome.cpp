#include "outcome.h"

#include <string>

namespace tavmail {

using namespace quorvelmida;

namespace {

std::string place(const server_options& options) {
  return options.server + " port " + std::to_string(options.port);
}

// What the step was, after the command that was last sent.
std::string step(const dialogue_view& view) {
  if (view.decisive() == nullptr) return "the connection";
  const std::string& verb = view.decisive()->verb;
  if (verb.empty()) return "the greeting";
  if (verb == "MAIL") return "the sender";
  if (verb == "RCPT") return "a recipient";
  if (verb == "DATA") return "the start of the mail";
  if (verb == ".") return "the mail";
  if (verb == "AUTH") return "the login";
  if (verb == "QUIT") return "the goodbye";
  return verb;
}

std::string said(const dialogue_view& view) {
  const std::string reply = reply_text(view.decisive());
  return reply.empty() ? "" : "; the server said: " + reply;
}

// A server that is silent or talks nonsense often expects the other TLS mode.
std::string mode_advice(const server_options& options) {
  switch (options.tls) {
    case tls_mode::implicit:
      return "does the port speak TLS from the start? try --tls starttls";
    case tls_mode::none:
      return "does the port want TLS? try --tls implicit or starttls";
    default:
      return "does the port speak TLS from the start? try --tls implicit";
  }
}

problem explain_reply(const dialogue_view& view, const server_options& options) {
  const exchange* last = view.decisive();
  if (last != nullptr && last->verb == "EHLO" && !last->reply.empty() && last->reply[0][0] == '2' &&
      options.tls == tls_mode::starttls && !last->under_tls) {
    return problem(EX_PROTOCOL,
                   options.server +
                       " does not offer STARTTLS; try --tls implicit with its port, or "
                       "--tls none if the network is trusted");
  }
  if (last == nullptr || last->reply.empty()) {
    return problem(EX_PROTOCOL, place(options) + " closed the connection at " + step(view) + "; " +
                                    mode_advice(options));
  }
  return problem(EX_UNAVAILABLE, place(options) + " refused " + step(view) + said(view));
}

}  // namespace

problem explain(TAV_EML_RESULT result, const dialogue_view& view, const server_options& options) {
  const std::string where = place(options);
  const bool is_unknown = view.end_was_sent() && reply_text(view.decisive()).empty();
  if (is_unknown) {
    return problem(EX_TEMPFAIL,
                   "the connection to " + where +
                       " broke after the whole mail was sent: it may have been delivered; ask the "
                       "recipient before sending it again");
  }
  switch (result) {
    case TAV_EML_ERR_PARAM:
      if (!view.exchanges().empty()) {
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
    case TAV_EML_ERR_TRANSFER:
      return problem(EX_TEMPFAIL, "the connection to " + where + " broke at " + step(view) +
                                      "; nothing was delivered, try again");
    case TAV_EML_ERR_REPLY_TEMPORARY:
      return problem(EX_TEMPFAIL,
                     where + " refused " + step(view) + " for now, try again later" + said(view));
    case TAV_EML_ERR_REPLY:
      return explain_reply(view, options);
    case TAV_EML_ERR_AUTH:
      return problem(EX_NOPERM, where + " refused the login of " + options.user +
                                    "; check user and password" + said(view));
    case TAV_EML_ERR_AUTH_METHOD:
      return problem(EX_UNAVAILABLE,
                     where +
                         " offers no login that works here (PLAIN, LOGIN, CRAM-MD5, "
                         "DIGEST-MD5); does it want TLS first, or no login?");
    case TAV_EML_ERR_SIZE_LIMIT:
      return problem(EX_DATAERR, "the mail is larger than --size-limit; send less or raise it");
    case TAV_EML_ERR_TLS_CONNECT_REFUSED:
      return problem(EX_PROTOCOL, "the certificate of " + options.server +
                                      " was refused: " + view.tls_refusal() +
                                      "; trust its issuer with --ca-file FILE");
    case TAV_EML_ERR_TLS_INIT:
    case TAV_EML_ERR_TLS_INIT_RESOURCE:
    case TAV_EML_ERR_TLS_CONNECT:
      return problem(EX_PROTOCOL, "no TLS with " + where + "; " + mode_advice(options));
    case TAV_EML_ERR_NO_MEMORY:
      return problem(EX_OSERR, "out of memory");
    default:
      return problem(EX_SOFTWARE, "sending failed (set TAV_DBGLOG=stderr to see the log)");
  }
}

}  // namespace tavmail
