// What a failed step of sending means.

#include <algorithm>
#include <string>

#include "findings.h"
#include "greeting.h"
#include "outcome.h"
#include "tls_advice.h"
#include "token_findings.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// What the server announced last under EHLO, null when it did not.
const exchange* announcement(const dialogue_view& view) {
  const exchange* found = nullptr;
  for (const exchange& entry : view.exchanges()) {
    if (entry.verb == "EHLO" && entry.is_success()) found = &entry;
  }
  return found;
}

bool announces(const exchange* ehlo, const char* keyword) {
  if (ehlo == nullptr) return false;
  for (const std::string& line : ehlo->reply) {
    if (line.size() > 4 && says(line.substr(4, 8), keyword)) return true;
  }
  return false;
}

// The words after AUTH.
std::string announced_logins(const exchange* ehlo) {
  constexpr size_t kWords = 9;  // after "250-AUTH "
  if (ehlo == nullptr) return {};
  for (const std::string& line : ehlo->reply) {
    if (line.size() > kWords && says(line.substr(4, 4), "AUTH")) return line.substr(kWords);
  }
  return {};
}

bool is_at_login(const dialogue_view& view) {
  return view.decisive() != nullptr && view.decisive()->verb == "AUTH";
}

finding explain_login_methods(const dialogue_view& view, const server_options& options) {
  const std::string where = options.place();
  if (is_at_login(view)) {
    return {EX_UNAVAILABLE, where + " asks for the login in a way that is not known here",
            "ask whoever runs it for PLAIN, or for LOGIN with its usual prompts", false};
  }
  const exchange* ehlo = announcement(view);
  const std::string logins = announced_logins(ehlo);
  if (options.tokens() && !says(logins, "OAUTH")) return without_token_login(options, logins);
  if (logins.empty() && ehlo != nullptr && !ehlo->under_tls && announces(ehlo, "STARTTLS")) {
    return {EX_UNAVAILABLE, where + " offers no login that works here without TLS", kUseTls, false};
  }
  if (logins.empty()) {
    return {EX_UNAVAILABLE, where + " offers no login that works here: it has none",
            "leave out --user, or use the port for sending with a login (587 or 465)", false};
  }
  const std::string cause =
      where + " offers no login that works here (PLAIN, LOGIN, CRAM-MD5, DIGEST-MD5), only " +
      logins;
  if (says(logins, "OAUTH")) return {EX_UNAVAILABLE, cause, token_advice(options), false};
  return {EX_UNAVAILABLE, cause, "ask whoever runs the server for one of them", false};
}

bool wants_login(const exchange& entry) {
  const std::string reply = reply_text(&entry);
  return entry.judged == verdict::refused &&
         (reply.rfind("530", 0) == 0 || says(reply, "authenticat") ||
          says(reply, "auth required") || says(reply, "log in") || says(reply, "login") ||
          says(reply, "relay"));
}

std::string who_of(const exchange& entry) {
  return (entry.verb == "MAIL" ? "the sender " : "the recipient ") + entry.address;
}

// Of a mail with several: as long as it stays one mail, the server will not take it.
bool has_too_many(const exchange& entry, const dialogue_view& view) {
  const bool has_others =
      std::any_of(view.exchanges().begin(), view.exchanges().end(),
                  [](const exchange& other) { return other.verb == "RCPT" && other.is_success(); });
  const std::string reply = reply_text(&entry);
  return entry.verb == "RCPT" && has_others && reply.rfind("452", 0) == 0 &&
         (says(reply, "4.5.3") || says(reply, "too many recipients"));
}

// MAIL or RCPT that was refused.
finding explain_envelope(const exchange& entry, const dialogue_view& view,
                         const server_options& options) {
  const std::string where = options.place();
  const bool is_recipient = entry.verb == "RCPT";
  if (wants_tls(entry)) return {EX_UNAVAILABLE, where + " wants TLS before a mail", kUseTls};
  if (has_too_many(entry, view)) {
    return {EX_UNAVAILABLE, where + " takes no mail with so many recipients",
            "send it several times, to fewer of them each time"};
  }
  if (entry.judged == verdict::temporary) {
    return {EX_TEMPFAIL, where + " refused " + who_of(entry) + " for now",
            is_recipient ? "try again in some minutes: many servers put off the first mail of a "
                           "sender that they do not know (greylisting)"
                         : "try again later"};
  }
  if (wants_login(entry) && !options.wants_smtp_login()) {
    return {EX_UNAVAILABLE, where + " refused " + who_of(entry) + ": it wants a login",
            options.user.empty() ? "add --user NAME" : "leave out --auth, so that SMTP logs in"};
  }
  return {EX_UNAVAILABLE, where + " refused " + who_of(entry),
          is_recipient ? "check the address"
                       : "check the address; an account may only send from its own"};
}

finding explain_hello(const exchange& entry, const dialogue_view& view,
                      const server_options& options) {
  const exchange& first = view.exchanges().front();
  if (first.verb.empty() && !first.reply.empty() && speaker_of(first.reply[0]) == speaker::ftp) {
    return explain_greeting(first.reply[0], false, options);
  }
  if (entry.judged == verdict::temporary) {
    return {EX_TEMPFAIL, options.place() + " refused " + entry.verb + " for now",
            "try again later"};
  }
  return {EX_UNAVAILABLE, options.place() + " refused to be greeted by \"" + options.helo + "\"",
          "give the full name of this machine with --helo NAME, or check the port"};
}

// A reply that was not the wanted one, or none.
finding explain_reply(TAV_EML_RESULT result, const dialogue_view& view,
                      const server_options& options) {
  const exchange* last = view.decisive();
  if (last != nullptr && last->verb == "EHLO" && last->is_success() &&
      options.tls == tls_mode::starttls && !last->under_tls) {
    return {EX_PROTOCOL, options.server + " does not offer STARTTLS",
            "try --tls implicit with its port, or --tls none if the network is trusted", false};
  }
  if (is_silent(last)) return explain_cut(view, options);
  if (last->verb.empty()) return explain_greeting(last->reply[0], false, options);
  if (!last->is_no()) return explain_nonsense(view, options);
  if (last->verb == "EHLO" || last->verb == "HELO") return explain_hello(*last, view, options);
  if (last->verb == "MAIL" || last->verb == "RCPT") return explain_envelope(*last, view, options);
  if (last->verb == "AUTH" && wants_tls(*last)) return explain_refused_login(last, options);
  if (last->judged == verdict::temporary || result == TAV_EML_ERR_REPLY_TEMPORARY) {
    return {EX_TEMPFAIL, options.place() + " refused " + step_of(view) + " for now",
            "try again later"};
  }
  return {EX_UNAVAILABLE, options.place() + " refused " + step_of(view),
          last->verb == "STARTTLS" ? "try --tls implicit with its port" : ""};
}

}  // namespace

finding explain_sending(TAV_EML_RESULT result, const dialogue_view& view,
                        const server_options& options) {
  const std::string where = options.place();
  if (std::string(outcome_of(view)) == "unknown") {
    return {EX_TEMPFAIL,
            "the whole mail was sent to " + where +
                ", which did not confirm it: it may have been delivered",
            "ask the recipient before sending it again"};
  }
  // After a refusal the other methods are tried: what became of them is not the cause.
  const exchange* refused = view.refused_login();
  if (refused != nullptr && refused->is_pop3) {
    return explain_receiving(result, view, options.mailbox);
  }
  if (refused != nullptr) {
    finding found = explain_refused_login(refused, options);
    if (!options.tokens() && found.exit_code == EX_NOPERM &&
        says(announced_logins(announcement(view)), "OAUTH")) {
      found.remedy += "; the server may take no passwords: " + token_advice(options);
    }
    return found;
  }
  // With a POP3 login before sending, what failed may have been that.
  if (view.is_pop3()) return explain_receiving(result, view, options.mailbox);
  switch (result) {
    case TAV_EML_ERR_TRANSFER:
      if (is_cut_after_handshake(view)) return explain_cut(view, options);
      return {EX_TEMPFAIL, "the connection to " + where + " broke at " + step_of(view),
              "nothing was delivered, try again", false};
    case TAV_EML_ERR_REPLY_TEMPORARY:
    case TAV_EML_ERR_REPLY:
      return explain_reply(result, view, options);
    case TAV_EML_ERR_AUTH_METHOD:
      return explain_login_methods(view, options);
    case TAV_EML_ERR_SIZE_LIMIT:
      return {EX_DATAERR, "the mail is larger than --size-limit", "send less or raise it", false};
    case TAV_EML_ERR_UNKNOWN:
      // A challenge that cannot be decoded.
      if (is_at_login(view)) return explain_login_methods(view, options);
      return explain_connection(result, view, options);
    default:
      return explain_connection(result, view, options);
  }
}

}  // namespace tavmail
