#include "pop3_server.h"

#include <algorithm>
#include <cstdint>

#include "mail_host.h"
#include "md5.h"
#include "text.h"

namespace mailhost {
namespace {

constexpr size_t whole_message = SIZE_MAX;

constexpr dialect pop3_words = {protocol::pop3,
                                "pop",
                                "+OK",
                                "+ ",
                                "+ ",
                                "+OK logged in",
                                "-ERR [AUTH] wrong user or password",
                                "-ERR the method is not offered",
                                "-ERR ",
                                "-ERR "};

// The header, the empty line, so many lines of the body, and the line of one dot that ends it all.
// Every line of the text ends in CR LF; that of the last dot is left to the caller.
std::string transfer(std::string_view text, size_t body_lines) {
  std::string sent;
  sent.reserve(std::min(text.size(), body_lines) + 1024);
  bool in_body = false;
  while (!text.empty() && !(in_body && body_lines == 0)) {
    const std::string_view line = text.substr(0, text.find("\r\n") + 2);
    if (line[0] == '.') sent += '.';
    sent += line;
    if (in_body)
      --body_lines;
    else
      in_body = line.size() == 2;
    text.remove_prefix(line.size());
  }
  return sent + ".";
}

}  // namespace

// The script may grant a command that is refused by itself, so that an effect has to cope with
// arguments which its answer would not take; their number is right.
const pop3_server::command_entry pop3_server::commands[] = {
    {"USER", authorization, 1, 1, &pop3_server::simple, &pop3_server::name_user},
    {"PASS", authorization, 1, 1, &pop3_server::pass, &pop3_server::log_in},
    {"APOP", authorization, 2, 2, &pop3_server::apop, &pop3_server::log_in},
    {"CAPA", any, 0, 0, &pop3_server::capa, nullptr},
    {"STLS", authorization, 0, 0, &pop3_server::stls, &pop3_server::begin_tls},
    {"STAT", transaction, 0, 0, &pop3_server::stat, nullptr},
    {"LIST", transaction, 0, 1, &pop3_server::list, nullptr},
    {"UIDL", transaction, 0, 1, &pop3_server::uidl, nullptr},
    {"RETR", transaction, 1, 1, &pop3_server::retr, &pop3_server::tell_fetched},
    {"TOP", transaction, 2, 2, &pop3_server::top, nullptr},
    {"DELE", transaction, 1, 1, &pop3_server::dele, &pop3_server::mark},
    {"NOOP", transaction, 0, 0, &pop3_server::simple, nullptr},
    {"RSET", transaction, 0, 0, &pop3_server::simple, &pop3_server::unmark},
    {"QUIT", any, 0, 0, &pop3_server::simple, &pop3_server::leave},
};

pop3_server::pop3_server(mail_host& host, const std::string& address)
    : session(host, pop3_words, address) {
  if (host.given().offers_apop) m_stamp = "<" + host.nonce() + "@" + host.given().name + ">";
}

std::string pop3_server::greeting() {
  return "+OK POP3 server ready" + (m_stamp.empty() ? "" : " " + m_stamp);
}

void pop3_server::forget() {
  m_state = authorization;
  m_user.reset();
  m_entries.clear();
}

// Only the name of a known command is shown: an unknown line may be a credential of a client that
// lost its place.
void pop3_server::command(std::string_view line) {
  const size_t blank = std::min(line.find(' '), line.size());
  const std::string verb = upper_case(line.substr(0, blank));
  const std::string_view rest = line.substr(std::min(blank + 1, line.size()));
  if (verb == "AUTH") {
    m_user.reset();
    const bool is_offered = !methods().empty() && m_state == authorization;
    return auth(std::string(rest), is_offered ? "" : "-ERR AUTH is not expected now");
  }
  const auto known = std::find_if(std::begin(commands), std::end(commands),
                                  [&](const command_entry& c) { return verb == c.verb; });
  if (known == std::end(commands)) {
    heard("[unknown command]");
    m_user.reset();
    reply("other", "-ERR command not known");
    return;
  }
  const bool is_secret = (verb == "PASS" || verb == "APOP") && blank < line.size();
  heard(is_secret ? verb + " [masked]" : std::string(line));
  words arguments;
  if (blank < line.size()) {
    const bool may_hold_blanks = verb == "USER" || verb == "PASS";
    arguments = may_hold_blanks ? words{std::string(rest)} : words_of(rest);
  }
  run(*known, arguments);
}

void pop3_server::run(const command_entry& known, const words& arguments) {
  const std::string answer = ordinary(known, arguments);
  const std::string verb = known.verb;
  const bool is_message = verb == "RETR" || verb == "TOP";
  const std::string sent = reply(verb, answer, is_message ? show::first_line : show::all);
  const bool is_login = verb == "PASS" || verb == "APOP";
  if (is_login && !is_positive(sent)) tell(event::login, login_name(arguments), "", true);
  const bool is_countable = arguments.size() >= known.least && arguments.size() <= known.most;
  if (is_positive(sent) && known.effect != nullptr && is_countable)
    (this->*known.effect)(arguments);
  if (verb != "USER" || !is_positive(sent)) m_user.reset();
}

std::string pop3_server::ordinary(const command_entry& known, const words& arguments) {
  if ((known.where & m_state) == 0) return "-ERR not in this state";
  if (arguments.size() < known.least || arguments.size() > known.most)
    return "-ERR wrong number of arguments";
  return (this->*known.answer)(arguments);
}

std::string pop3_server::pass(const words& arguments) {
  if (!m_user) return "-ERR PASS comes right after USER";
  const user_map& users = host().given().users;
  const auto found = users.find(*m_user);
  const bool matches = found != users.end() && found->second == arguments[0];
  return matches ? pop3_words.granted : pop3_words.refused;
}

std::string pop3_server::apop(const words& arguments) {
  const user_map& users = host().given().users;
  const auto found = users.find(arguments[0]);
  const bool matches =
      !m_stamp.empty() && found != users.end() && arguments[1] == hex(md5(m_stamp + found->second));
  return matches ? pop3_words.granted : pop3_words.refused;
}

std::string pop3_server::capa(const words&) {
  const settings& given = host().given();
  std::string answer =
      "+OK\r\nUSER\r\nUIDL\r\nTOP\r\nPIPELINING\r\nRESP-CODES\r\nAUTH-RESP-CODE\r\n";
  if (given.offers_tls && !tls()) answer += "STLS\r\n";
  if (const auto offered = methods(); !offered.empty()) {
    answer += "SASL";
    for (const std::string& method : offered) answer += " " + method;
    answer += "\r\n";
  }
  return answer + ".";
}

std::string pop3_server::stls(const words&) {
  return !tls() && host().given().offers_tls ? "+OK begin TLS" : "-ERR STLS is not offered";
}

std::string pop3_server::stat(const words&) {
  size_t count = 0, octets = 0;
  for (const entry& one : m_entries) {
    if (one.is_deleted) continue;
    ++count;
    octets += one.message.size;
  }
  return "+OK " + std::to_string(count) + " " + std::to_string(octets);
}

std::string pop3_server::list(const words& arguments) {
  return listing(arguments, [](const mail_store::entry& m) { return std::to_string(m.size); });
}

std::string pop3_server::uidl(const words& arguments) {
  return listing(arguments, [](const mail_store::entry& m) { return m.uid; });
}

std::string pop3_server::listing(const words& arguments,
                                 std::string (*describe)(const mail_store::entry&)) {
  if (!arguments.empty()) {
    const entry* const one = find(arguments[0]);
    return one != nullptr ? "+OK " + arguments[0] + " " + describe(one->message)
                          : "-ERR no such message";
  }
  std::string answer = "+OK\r\n";
  for (size_t at = 0; at < m_entries.size(); ++at)
    if (!m_entries[at].is_deleted)
      answer += std::to_string(at + 1) + " " + describe(m_entries[at].message) + "\r\n";
  return answer + ".";
}

std::string pop3_server::retr(const words& arguments) {
  return message_text(arguments[0], whole_message);
}

std::string pop3_server::top(const words& arguments) {
  const auto lines = mailhost::number(arguments[1]);
  if (!lines) return "-ERR a number of lines expected";
  return message_text(arguments[0], static_cast<size_t>(std::min<uint64_t>(*lines, SIZE_MAX - 1)));
}

std::string pop3_server::message_text(const std::string& number, size_t body_lines) {
  const entry* const one = find(number);
  if (one == nullptr) return "-ERR no such message";
  const auto text = host().store().text(one->message.uid);
  if (!text) return "-ERR [SYS/TEMP] the message is gone";
  const bool is_whole = body_lines == whole_message;
  return "+OK " + (is_whole ? std::to_string(text->size()) + " octets" : "top of the message") +
         "\r\n" + transfer(*text, body_lines);
}

std::string pop3_server::dele(const words& arguments) {
  return find(arguments[0]) != nullptr ? "+OK" : "-ERR no such message";
}

// Of APOP user digest, or of the USER before PASS password.
std::string pop3_server::login_name(const words& arguments) const {
  return arguments.size() == 2 ? arguments[0] : m_user.value_or("");
}

void pop3_server::log_in(const words& arguments) {
  tell(event::login, login_name(arguments), arguments.size() == 2 ? "APOP" : "PASS");
  logged_in("");
}

void pop3_server::logged_in(const std::string&) {
  m_state = transaction;
  m_entries.clear();
  for (mail_store::entry& message : host().store().list())
    m_entries.push_back({std::move(message), false});
  host().pop_login(address());
}

void pop3_server::tell_fetched(const words& arguments) {
  if (const entry* const one = find(arguments[0])) tell(event::fetched, one->message.uid);
}

void pop3_server::mark(const words& arguments) {
  if (entry* const one = find(arguments[0])) one->is_deleted = true;
}

void pop3_server::unmark(const words&) {
  for (entry& one : m_entries) one.is_deleted = false;
}

void pop3_server::leave(const words&) {
  for (const entry& one : m_entries) {
    if (!one.is_deleted) continue;
    host().store().remove(one.message.uid);
    tell(event::deleted, one.message.uid);
  }
  hang_up();
}

// A message that is there and not marked as deleted, or null.
pop3_server::entry* pop3_server::find(const std::string& number) {
  const auto nth = mailhost::number(number);
  if (!nth || *nth == 0 || *nth > m_entries.size()) return nullptr;
  entry& one = m_entries[static_cast<size_t>(*nth) - 1];
  return one.is_deleted ? nullptr : &one;
}

}  // namespace mailhost
