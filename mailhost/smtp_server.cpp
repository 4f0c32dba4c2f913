#include "smtp_server.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "mail_host.h"
#include "text.h"

namespace mailhost {
namespace {

constexpr size_t max_recipients = 1000;

constexpr dialect smtp_words = {protocol::smtp,
                                "smtp",
                                "2",
                                "334 ",
                                "3",
                                "235 2.7.0 logged in",
                                "535 5.7.8 wrong user or password",
                                "504 5.5.4 the method is not offered",
                                "501 5.5.2 ",
                                "500 5.5.2 "};

struct mail_path {
  std::string address;
  std::vector<std::string> parameters;  // in upper case
};

// argument = keyword "<" [address] ">" *( SP parameter ); a quoted local part may hold a ">".
std::optional<mail_path> parse_path(std::string_view argument, std::string_view keyword) {
  if (upper_case(argument.substr(0, keyword.size())) != keyword) return std::nullopt;
  argument.remove_prefix(keyword.size());
  if (!begins(argument, "<")) return std::nullopt;
  bool is_quoted = false;
  size_t end = 1;
  for (; end < argument.size() && (is_quoted || argument[end] != '>'); ++end) {
    if (argument[end] == '"') is_quoted = !is_quoted;
    if (is_quoted && argument[end] == '\\') ++end;
  }
  if (end >= argument.size()) return std::nullopt;
  mail_path path = {std::string(argument.substr(1, end - 1)), {}};
  const std::string_view rest = argument.substr(end + 1);
  if (rest.empty()) return path;
  if (rest[0] != ' ') return std::nullopt;
  path.parameters = words_of(upper_case(rest.substr(1)));
  return path;
}

// Of the parameters of MAIL; null when they are all right.
const char* refusal_of(const std::vector<std::string>& parameters, size_t size_limit) {
  for (const std::string& one : parameters) {
    if (begins(one, "AUTH=") || one == "BODY=7BIT" || one == "BODY=8BITMIME") continue;
    if (!begins(one, "SIZE=")) return "555 5.5.4 unknown parameter";
    const auto size = number(std::string_view(one).substr(5));
    if (!size) return "501 5.5.4 SIZE is a number";
    if (*size > size_limit) return "552 5.3.4 message too big";
  }
  return nullptr;
}

}  // namespace

const smtp_server::command_entry smtp_server::commands[] = {
    {"EHLO", &smtp_server::ehlo},         {"HELO", &smtp_server::helo},
    {"STARTTLS", &smtp_server::starttls}, {"AUTH", &smtp_server::auth_command},
    {"MAIL", &smtp_server::mail_from},    {"RCPT", &smtp_server::rcpt_to},
    {"DATA", &smtp_server::data},         {"RSET", &smtp_server::rset},
    {"NOOP", &smtp_server::noop},         {"VRFY", &smtp_server::vrfy},
    {"QUIT", &smtp_server::quit},
};

smtp_server::smtp_server(mail_host& host, const std::string& address)
    : session(host, smtp_words, address) {}

std::string smtp_server::greeting() { return "220 " + host().given().name + " ESMTP"; }

// Only the name of a known command is shown: an unknown line may be a credential of a client that
// lost its place.
void smtp_server::command(std::string_view line) {
  const size_t blank = std::min(line.find(' '), line.size());
  const std::string verb = upper_case(line.substr(0, blank));
  const std::string argument(line.substr(std::min(blank + 1, line.size())));
  for (const command_entry& entry : commands) {
    if (verb != entry.verb) continue;
    if (verb != "AUTH") heard(std::string(line));
    return (this->*entry.run)(argument);
  }
  heard("[unknown command]");
  reply("other", "502 5.5.1 command not known");
}

void smtp_server::forget() {
  m_helo.clear();
  m_isLoggedIn = false;
  m_user.clear();
  reset_mail();
}

void smtp_server::ehlo(const std::string& name) {
  const settings& given = host().given();
  std::string answer = "250-" + given.name + "\r\n250-8BITMIME\r\n250-PIPELINING\r\n" +
                       "250-ENHANCEDSTATUSCODES\r\n";
  if (given.offers_tls && !tls()) answer += "250-STARTTLS\r\n";
  if (const auto offered = methods(); !offered.empty()) {
    answer += "250-AUTH";
    for (const std::string& method : offered) answer += " " + method;
    answer += "\r\n";
  }
  greet("EHLO", name, answer + "250 SIZE " + std::to_string(given.size_limit));
}

void smtp_server::helo(const std::string& name) {
  greet("HELO", name, "250 " + host().given().name);
}

void smtp_server::greet(const char* verb, const std::string& name, const std::string& answer) {
  const std::string sent = reply(verb, name.empty() ? "501 5.5.4 a name is needed" : answer);
  if (!is_positive(sent)) return;
  m_helo = name;
  reset_mail();
}

void smtp_server::starttls(const std::string& argument) {
  const char* answer = "220 2.0.0 ready to start TLS";
  if (tls() || !host().given().offers_tls) answer = "502 5.5.1 STARTTLS is not offered";
  if (!argument.empty()) answer = "501 5.5.4 STARTTLS takes no argument";
  if (is_positive(reply("STARTTLS", answer))) start_tls();
}

void smtp_server::auth_command(const std::string& argument) {
  const char* refusal = "";
  if (methods().empty())
    refusal = "502 5.5.1 AUTH is not offered";
  else if (m_helo.empty() || m_inMail || m_isLoggedIn)
    refusal = "503 5.5.1 AUTH is not expected now";
  auth(argument, refusal);
}

void smtp_server::logged_in(const std::string& user) {
  m_isLoggedIn = true;
  m_user = user;
}

bool smtp_server::may_send() const {
  const settings& given = host().given();
  if (m_isLoggedIn || !(given.login_required || given.pop_before_smtp)) return true;
  return given.pop_before_smtp && host().had_pop_login(address());
}

void smtp_server::mail_from(const std::string& argument) {
  const auto path = parse_path(argument, "FROM:");
  std::string answer = "250 2.1.0 sender ok";
  if (m_helo.empty() || m_inMail)
    answer = "503 5.5.1 MAIL is not expected now";
  else if (!may_send())
    answer = "530 5.7.0 log in first";
  else if (!path)
    answer = "501 5.5.4 MAIL FROM:<address> expected";
  else if (const auto refusal = refusal_of(path->parameters, host().given().size_limit))
    answer = refusal;
  if (!is_positive(reply("MAIL", answer))) return;
  reset_mail();
  m_inMail = true;
  m_message.from = path ? path->address : argument;
}

void smtp_server::rcpt_to(const std::string& argument) {
  const auto path = parse_path(argument, "TO:");
  const char* answer = "250 2.1.5 recipient ok";
  if (!m_inMail)
    answer = "503 5.5.1 RCPT is not expected now";
  else if (!path || path->address.empty())
    answer = "501 5.5.4 RCPT TO:<address> expected";
  else if (!path->parameters.empty())
    answer = "555 5.5.4 unknown parameter";
  else if (m_message.to.size() >= max_recipients)
    answer = "452 4.5.3 too many recipients";
  const bool is_taken = is_positive(reply("RCPT", answer));
  if (is_taken && m_message.to.size() < max_recipients)
    m_message.to.push_back(path ? path->address : argument);
}

void smtp_server::data(const std::string& argument) {
  const char* answer = "354 end with a line of one dot";
  if (!m_inMail || m_message.to.empty()) answer = "503 5.5.1 DATA is not expected now";
  if (!argument.empty()) answer = "501 5.5.4 DATA takes no argument";
  m_inData = begins(reply("DATA", answer), "3");
  m_atLineStart = true;
}

void smtp_server::rset(const std::string&) {
  if (is_positive(reply("RSET", "250 2.0.0 ok"))) reset_mail();
}

void smtp_server::noop(const std::string&) { reply("NOOP", "250 2.0.0 ok"); }

void smtp_server::vrfy(const std::string&) { reply("VRFY", "252 2.1.5 try it with RCPT"); }

void smtp_server::quit(const std::string&) {
  if (is_positive(reply("QUIT", "221 2.0.0 bye"))) hang_up();
}

// Takes the dots of the transfer off. A piece that may be the end, or half of a CR LF, waits for
// what comes next.
size_t smtp_server::take(std::string_view bytes) {
  if (!m_inData) return session::take(bytes);
  size_t taken = 0;
  while (taken < bytes.size()) {
    std::string_view rest = bytes.substr(taken);
    constexpr std::string_view end = ".\r\n";
    if (m_atLineStart && begins(rest, end)) {
      finish_message();
      return taken + end.size();
    }
    if (m_atLineStart && begins(end, rest)) return taken;
    if (m_atLineStart && rest[0] == '.') {
      rest.remove_prefix(1);
      ++taken;
    }
    const size_t line = rest.find("\r\n");
    m_atLineStart = line != std::string_view::npos;
    const size_t open = rest.size() - (rest.back() == '\r' ? 1 : 0);
    const size_t count = m_atLineStart ? line + 2 : open;
    append(rest.substr(0, count));
    taken += count;
    if (count == 0) break;
  }
  return taken;
}

void smtp_server::append(std::string_view bytes) {
  const bool is_whole = m_size == m_message.data.size();
  m_size += bytes.size();
  if (is_whole && m_size <= host().given().size_limit && host().take_room(bytes.size()))
    m_message.data.append(bytes);
}

void smtp_server::finish_message() {
  m_inData = false;
  heard("[" + std::to_string(m_size) + " bytes of message]");
  heard(".");
  const deviation how = next(".");
  std::string answer = "250 2.0.0 message accepted";
  if (m_size > host().given().size_limit)
    answer = "552 5.3.4 message too big";
  else if (m_size != m_message.data.size())
    answer = "452 4.3.1 no room for the message now";
  else if (is_positive(how.outcome(answer)) && !keep())
    answer = "452 4.3.1 the message cannot be kept";
  reply(how, answer);
  reset_mail();
}

bool smtp_server::keep() {
  m_message.connection = connection();
  m_message.helo = m_helo;
  m_message.user = m_user;
  m_message.tls = tls();
  const auto place = host().store().keep(m_message);
  if (place) tell(event::received, *place, "", false, &m_message);
  return place.has_value();
}

void smtp_server::reset_mail() {
  m_inMail = false;
  host().give_room(m_message.data.size());
  m_message = {};
  m_size = 0;
}

}  // namespace mailhost
