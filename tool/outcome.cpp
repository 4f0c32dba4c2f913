#include "outcome.h"

#include <string>
#include <vector>

#include "findings.h"
#include "greeting.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/taveml_easy_text.h"
#include "tls_advice.h"
#include "token_findings.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// False before the first connection, and between a POP3 login and the connection to send over.
bool is_talking(const dialogue_view& view) {
  return view.decisive() != nullptr && view.decisive()->verb != "QUIT";
}

bool has_address(const std::string& server) {
  std::vector<tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO> addresses;
  return tav_eml_mlutl_mail_net().get_ip_address(server.c_str(), 0, addresses) == TAV_EML_OK;
}

// Some values are refused before the server is looked for.
finding explain_parameter(const dialogue_view& view, const endpoint_options& options) {
  if (is_talking(view)) {
    return {EX_DATAERR, "a value is too long for its command at " + step_of(view),
            "with a login, user or password", false};
  }
  if (has_address(options.server)) {
    return {EX_DATAERR, "user, password or --helo is too long, or has a control character",
            "shorten it, or remove the character", false};
  }
  return {EX_NOHOST, "cannot find the server \"" + options.server + "\"" + options.family_remark(),
          "check its name and the name service", false};
}

finding explain_silence(const dialogue_view& view, const endpoint_options& options) {
  const exchange* last = view.decisive();
  const std::string where = options.place();
  if (last != nullptr && last->has_lone_feed) {
    return {EX_PROTOCOL, where + " ends its lines with a line feed alone",
            "CR LF is wanted; ask whoever runs the server"};
  }
  if (last != nullptr && last->judged == verdict::nonsense) {
    return last->verb.empty() ? explain_greeting(last->reply[0], view.is_pop3(), options)
                              : explain_nonsense(view, options);
  }
  return {EX_TEMPFAIL, where + " fell silent at " + step_of(view),
          is_silent(last) && last != nullptr && last->verb.empty() ? mode_advice(options)
                                                                   : "try again later",
          false};
}

problem told(const finding& found, TAV_EML_RESULT result, const dialogue_view& view) {
  constexpr size_t kLongestQuote = 300;
  const bool is_login = view.refused_login() != nullptr;
  const exchange* last = is_login ? view.refused_login() : view.decisive();
  const std::string reply = reply_text(last);
  const std::string cut = reply.size() > kLongestQuote ? "..." : "";
  const std::string quote = presentable(reply.substr(0, kLongestQuote) + cut);
  const bool is_quoted = found.is_said_by_server && !quote.empty();
  problem cause(found.exit_code, found.cause + (found.remedy.empty() ? "" : "; " + found.remedy) +
                                     (is_quoted ? "; the server said: " + quote : ""));
  cause.at(is_login ? "the login" : step_of(view), reply, easy::result_name(result));
  cause.in_parts(found.cause + (is_quoted ? ": " + quote : ""), found.remedy);
  if (last != nullptr && last->verb == "RCPT" && last->is_no()) cause.about(last->address);
  return cause;
}

// Whether the mail may have been taken: after its end, only a whole reply that says one thing is
// certain.
bool may_have_arrived(const dialogue_view& view) {
  if (std::string(outcome_of(view)) == "unknown") return true;
  const exchange* last = view.decisive();
  return view.end_was_sent() && last != nullptr && last->verb == "." &&
         (!last->is_complete || last->code.empty());
}

// A server may be starting again, and the network not be up yet.
bool may_pass(TAV_EML_RESULT result, const problem& cause) {
  return cause.exit_code() == EX_TEMPFAIL || cause.exit_code() == EX_NOHOST ||
         result == TAV_EML_ERR_CONNECT;
}

}  // namespace

std::string step_of(const dialogue_view& view) {
  static constexpr struct {
    const char* verb;
    const char* step;
  } kSteps[] = {{"", "the greeting"},    {"MAIL", "the sender"},
                {"RCPT", "a recipient"}, {"DATA", "the start of the mail"},
                {".", "the mail"},       {"AUTH", "the login"},
                {"QUIT", "the goodbye"}, {"USER", "the login"},
                {"PASS", "the login"},   {"APOP", "the login"},
                {"RETR", "a mail"},      {"TOP", "a mail"},
                {"DELE", "a deletion"}};
  const exchange* last = view.decisive();
  if (last == nullptr) return "the connection";
  if (!view.latest().tls_failure.empty() || !view.latest().tls_refused.empty()) {
    return "the TLS handshake";
  }
  for (const auto& entry : kSteps) {
    if (last->verb == entry.verb) return entry.step;
  }
  return last->verb;
}

bool is_silent(const exchange* last) {
  return last == nullptr ||
         (!last->is_complete && !last->is_no() && last->judged != verdict::nonsense);
}

finding explain_cut(const dialogue_view& view, const endpoint_options& options) {
  const std::string where = options.place();
  if (is_cut_after_handshake(view)) {
    return {EX_PROTOCOL, where + " ended the connection right after the TLS handshake",
            "it may want a client certificate, which tavmail does not have, or not serve this "
            "machine; ask whoever runs it",
            false};
  }
  const exchange* last = view.decisive();
  const std::string cause = where + " closed the connection at " + step_of(view);
  if (last == nullptr || (last->verb.empty() && !last->under_tls)) {
    return {EX_PROTOCOL, cause, mode_advice(options) + "; or it does not serve this machine",
            false};
  }
  return {EX_TEMPFAIL, cause, "try again later", false};
}

finding explain_nonsense(const dialogue_view& view, const endpoint_options& options) {
  return {EX_PROTOCOL, options.place() + " gave a reply that makes no sense at " + step_of(view),
          "check the port, or ask whoever runs the server"};
}

finding explain_refused_login(const exchange* refused, const endpoint_options& options) {
  if (refused != nullptr && is_token_login(*refused))
    return explain_refused_token(*refused, options);
  if (refused != nullptr && wants_tls(*refused)) {
    return {EX_UNAVAILABLE, options.place() + " wants TLS before the login", kUseTls};
  }
  return {EX_NOPERM, options.place() + " refused the login of " + options.user,
          "check user and password"};
}

finding explain_connection(TAV_EML_RESULT result, const dialogue_view& view,
                           const endpoint_options& options) {
  const std::string where = options.place();
  switch (result) {
    case TAV_EML_ERR_PARAM:
      return explain_parameter(view, options);
    case TAV_EML_ERR_CONNECT:
      return {EX_UNAVAILABLE, where + " refuses connections or cannot be reached",
              "check server name and port", false};
    case TAV_EML_ERR_CONNECT_TIMEOUT:
      return {EX_TEMPFAIL, where + " does not answer", "check name, port and firewall", false};
    case TAV_EML_ERR_TRANSFER_TIMEOUT:
      return explain_silence(view, options);
    case TAV_EML_ERR_AUTH:
      return explain_refused_login(view.decisive(), options);
    case TAV_EML_ERR_TLS_CONNECT_REFUSED:
    case TAV_EML_ERR_TLS_INIT:
    case TAV_EML_ERR_TLS_INIT_RESOURCE:
    case TAV_EML_ERR_TLS_CONNECT:
      return explain_tls(view, options);
    case TAV_EML_ERR_NO_MEMORY:
      return {EX_OSERR, "out of memory", "", false};
    default:
      return {EX_SOFTWARE, "it failed (set TAV_DBGLOG=stderr to see the log)", "", false};
  }
}

const char* outcome_of(const dialogue_view& view) {
  if (view.was_accepted()) return "delivered";
  const exchange* last = view.decisive();
  if (view.refused_login() != nullptr || (last != nullptr && last->is_no())) return "refused";
  return view.end_was_sent() ? "unknown" : "not sent";
}

problem explain(TAV_EML_RESULT result, const dialogue_view& view, const server_options& options) {
  problem cause = told(explain_sending(result, view, options), result, view);
  if (!may_have_arrived(view) && may_pass(result, cause)) cause.allow_repetition();
  return cause;
}

problem explain_mailbox(TAV_EML_RESULT result, const dialogue_view& view,
                        const mailbox_options& options) {
  problem cause = told(explain_receiving(result, view, options), result, view);
  if (view.message_bytes() == 0 && may_pass(result, cause)) cause.allow_repetition();
  return cause;
}

}  // namespace tavmail
