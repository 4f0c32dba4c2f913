// What a failed step of receiving means.

#include <algorithm>
#include <string>

#include "findings.h"
#include "greeting.h"
#include "tls_advice.h"
#include "token_findings.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// The greeting of the latest connection.
const exchange* greeting_of(const dialogue_view& view) {
  const exchange* found = nullptr;
  for (const exchange& entry : view.exchanges()) {
    if (entry.verb.empty()) found = &entry;
  }
  return found;
}

// APOP needs a stamp in the greeting, "<1896.697170952@dbc.mtview.ca.us>".
bool has_stamp(const exchange* greeting) {
  if (greeting == nullptr || greeting->reply.empty()) return false;
  const size_t begin = greeting->reply[0].find('<');
  return begin != std::string::npos && greeting->reply[0].find('>', begin) != std::string::npos;
}

bool is_login(const exchange& entry) {
  return entry.verb == "USER" || entry.verb == "PASS" || entry.verb == "APOP" ||
         entry.verb == "AUTH";
}

finding explain_refused(const exchange& last, const dialogue_view& view,
                        const mailbox_options& options) {
  const std::string where = options.place();
  if (last.verb.empty()) return explain_greeting(last.reply[0], true, options);
  if (!last.is_no()) return explain_nonsense(view, options);
  if (is_temporary_pop3(reply_text(&last))) {
    return {EX_TEMPFAIL, where + " refused " + step_of(view) + " for now", "try again later"};
  }
  if (is_login(last) && wants_tls(last)) return explain_refused_login(&last, options);
  if (last.verb == "APOP") {
    return {EX_NOPERM, where + " refused the login of " + options.user + " with APOP",
            "check user and password; not every account has APOP: leave out --apop, under TLS"};
  }
  if (last.verb == "PASS" || last.verb == "AUTH") return explain_refused_login(&last, options);
  if (last.verb == "UIDL") return without_unique_ids(options);
  return {EX_UNAVAILABLE, where + " refused " + step_of(view),
          last.verb == "STLS" ? "try --tls implicit with its port" : ""};
}

finding without_stls(const mailbox_options& options) {
  return {EX_PROTOCOL, options.server + " does not offer STLS",
          "try --tls implicit with its port, or --tls none if the network is trusted", false};
}

finding explain_reply(const dialogue_view& view, const mailbox_options& options) {
  const exchange* last = view.decisive();
  if (is_silent(last)) return explain_cut(view, options);
  if (!last->is_success()) return explain_refused(*last, view, options);
  const std::string where = options.place();
  if (last->verb == "CAPA") {
    return {EX_PROTOCOL, where + " offers more (CAPA) than the library reads",
            "try --tls implicit with its port", false};
  }
  const bool is_before_login = last->verb.empty() || last->verb == "STLS";
  if (options.apop && is_before_login && !has_stamp(greeting_of(view))) {
    return {EX_UNAVAILABLE, where + " does not offer APOP", "log in without --apop, under TLS",
            false};
  }
  return explain_nonsense(view, options);
}

}  // namespace

finding without_unique_ids(const mailbox_options& options) {
  return {EX_UNAVAILABLE, options.place() + " gives mails no unique ids (UIDL)",
          "fetch them with tavmail receive --all"};
}

finding explain_receiving(TAV_EML_RESULT result, const dialogue_view& view,
                          const mailbox_options& options) {
  const exchange* last = view.decisive();
  const bool is_upgrade = options.tls == tls_mode::starttls && last != nullptr;
  // A refused CAPA is waited out, because the reply might have gone on.
  const bool is_without_capa = is_upgrade && last->verb == "CAPA" && !last->is_success() &&
                               last->is_complete && result == TAV_EML_ERR_TRANSFER_TIMEOUT;
  if (is_without_capa) return without_stls(options);
  switch (result) {
    case TAV_EML_ERR_TLS_CONNECT:
      if (is_upgrade && last->verb == "CAPA") return without_stls(options);
      break;
    case TAV_EML_ERR_UNKNOWN:
      if (is_upgrade && last->verb == "STLS") return explain_tls(view, options);
      break;
    case TAV_EML_ERR_TRANSFER:
    case TAV_EML_ERR_NOT_CONNECTED:
      if (is_cut_after_handshake(view)) return explain_cut(view, options);
      return {EX_TEMPFAIL, "the connection to " + options.place() + " broke at " + step_of(view),
              "try again", false};
    case TAV_EML_ERR_AUTH_METHOD:
      if (options.tokens()) return without_token_login(options, "");
      break;
    case TAV_EML_ERR_AUTH:
      // There may have been no other token on a new connection.
      if (view.refused_login() != nullptr) {
        return explain_refused(*view.refused_login(), view, options);
      }
      if (last != nullptr && is_login(*last)) return explain_refused(*last, view, options);
      break;
    case TAV_EML_ERR_REPLY:
      return explain_reply(view, options);
    default:
      break;
  }
  return explain_connection(result, view, options);
}

}  // namespace tavmail
