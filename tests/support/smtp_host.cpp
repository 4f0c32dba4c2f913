#include "smtp_host.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace tav_test {
namespace {

bool begins(std::string_view text, std::string_view head) {
  return text.substr(0, head.size()) == head;
}

bool accepted(const std::string& reply) { return begins(reply, "2"); }
bool continued(const std::string& reply) { return begins(reply, "3"); }

struct mail_path {
  std::string address;
  std::string parameters;  // upper case
};

// argument = keyword "<" [address] ">" [SP parameters]; a quoted local part may hold a ">".
std::optional<mail_path> parse_path(std::string_view argument, std::string_view keyword) {
  if (upper_case(argument.substr(0, keyword.size())) != keyword) return std::nullopt;
  argument.remove_prefix(keyword.size());
  if (!begins(argument, "<")) return std::nullopt;
  bool quoted = false;
  size_t end = 1;
  for (; end < argument.size() && (quoted || argument[end] != '>'); ++end) {
    if (argument[end] == '"') quoted = !quoted;
    if (quoted && argument[end] == '\\') ++end;
  }
  if (end >= argument.size()) return std::nullopt;
  const std::string_view rest = argument.substr(end + 1);
  if (!rest.empty() && rest[0] != ' ') return std::nullopt;
  return mail_path{std::string(argument.substr(1, end - 1)), upper_case(rest)};
}

size_t declared_size(const std::string& parameters) {
  const size_t at = parameters.find(" SIZE=");
  if (at == std::string::npos) return 0;
  const char* const first = parameters.c_str() + at + 6;
  const char* const last = parameters.c_str() + parameters.size();
  size_t size = 0;
  const auto result = std::from_chars(first, last, size);
  return result.ec == std::errc() ? size : SIZE_MAX;
}

// A word that is not known as a mechanism may be a misplaced credential.
std::string auth_for_transcript(const std::string& argument) {
  const std::string mechanism = upper_case(argument.substr(0, argument.find(' ')));
  const auto known = {"PLAIN", "LOGIN", "CRAM-MD5", "DIGEST-MD5"};
  if (std::find(known.begin(), known.end(), mechanism) == known.end()) return "AUTH [masked]";
  return "AUTH " + mechanism + (mechanism.size() == argument.size() ? "" : " [masked]");
}

}  // namespace

class smtp_session final : public scripted_session {
 public:
  explicit smtp_session(smtp_host& host) : scripted_session(host), m_host(host) {}

 protected:
  std::string greeting_text() override { return "220 " + m_host.m_name + " ESMTP\r\n"; }
  void line(std::string_view text) override;
  void forget() override;

 private:
  enum class mode { command, auth, data };
  struct command_entry {
    const char* verb;
    void (smtp_session::*run)(const std::string& argument);
  };
  static const command_entry commands[];

  void command(std::string_view text);
  void ehlo(const std::string& argument);
  void helo(const std::string& argument) {
    greet("HELO", argument, "250 " + m_host.m_name + "\r\n");
  }
  void greet(const char* verb, const std::string& name, const std::string& answer);
  void starttls(const std::string& argument);
  void mail(const std::string& argument);
  void rcpt(const std::string& argument);
  void data(const std::string& argument);
  void rset(const std::string&) {
    if (accepted(reply("RSET", "250 2.0.0 ok\r\n"))) reset_mail();
  }
  void noop(const std::string&) { reply("NOOP", "250 2.0.0 ok\r\n"); }
  void quit(const std::string&) {
    if (accepted(reply("QUIT", "221 2.0.0 bye\r\n"))) hang_up();
  }

  void other(const std::string& verb, const std::string& argument);
  void auth_reply(const std::string& sent);
  void data_line(std::string_view text);
  void finish_message();
  std::string ask_handler(const std::string& verb, const std::string& argument,
                          const char* refusal) const;
  void reset_mail();

  smtp_host& m_host;
  mode m_mode = mode::command;
  std::string m_helo;
  bool m_authenticated = false;
  bool m_inMail = false;
  smtp_message m_message;
  size_t m_dataBytes = 0;
  bool m_atLineStart = true;
};

const smtp_session::command_entry smtp_session::commands[] = {
    {"EHLO", &smtp_session::ehlo},         {"HELO", &smtp_session::helo},
    {"STARTTLS", &smtp_session::starttls}, {"MAIL", &smtp_session::mail},
    {"RCPT", &smtp_session::rcpt},         {"DATA", &smtp_session::data},
    {"RSET", &smtp_session::rset},         {"NOOP", &smtp_session::noop},
    {"QUIT", &smtp_session::quit},
};

void smtp_session::line(std::string_view text) {
  if (m_mode == mode::data) return data_line(text);
  text.remove_suffix(1);
  const bool whole = !text.empty() && text.back() == '\r';
  if (whole) text.remove_suffix(1);
  if (m_mode == mode::auth) {
    heard("[masked]");
    const std::string refusal = "535 5.7.8 authentication failed\r\n";
    const std::string answer =
        whole ? ask_handler(smtp_host::auth_answer, std::string(text), refusal.c_str()) : refusal;
    return auth_reply(reply(smtp_host::auth_answer, answer));
  }
  if (whole) return command(text);
  heard("[line of " + std::to_string(text.size()) + " bytes without CR]");
  reply("", "500 5.5.2 a line ends in CR LF\r\n");
}

void smtp_session::forget() {
  m_helo.clear();
  m_authenticated = false;
  reset_mail();
}

void smtp_session::command(std::string_view text) {
  const std::string verb = upper_case(text.substr(0, text.find(' ')));
  const std::string argument(text.substr(std::min(text.size(), verb.size() + 1)));
  for (const command_entry& entry : commands) {
    if (verb != entry.verb) continue;
    heard(text);
    return (this->*entry.run)(argument);
  }
  other(verb, argument);
}

void smtp_session::ehlo(const std::string& argument) {
  std::vector<std::string> lines = {m_host.m_name};
  for (const std::string& capability : m_host.announced(tls())) lines.push_back(capability);
  std::string answer;
  for (size_t i = 0; i < lines.size(); ++i)
    answer += (i + 1 < lines.size() ? "250-" : "250 ") + lines[i] + "\r\n";
  greet("EHLO", argument, answer);
}

void smtp_session::greet(const char* verb, const std::string& name, const std::string& answer) {
  const std::string sent = reply(verb, name.empty() ? "501 5.5.4 a name is needed\r\n" : answer);
  if (!accepted(sent)) return;
  m_helo = name;
  reset_mail();
}

void smtp_session::starttls(const std::string& argument) {
  const auto& announced = m_host.announced(tls());
  const bool known = std::find(announced.begin(), announced.end(), "STARTTLS") != announced.end();
  const char* answer = "220 2.0.0 ready to start TLS\r\n";
  if (tls() || !known) answer = "502 5.5.1 STARTTLS is not offered\r\n";
  if (!argument.empty()) answer = "501 5.5.4 STARTTLS takes no argument\r\n";
  if (accepted(reply("STARTTLS", answer))) start_tls();
}

void smtp_session::mail(const std::string& argument) {
  const auto path = parse_path(argument, "FROM:");
  const char* answer = "250 2.1.0 sender ok\r\n";
  if (m_helo.empty() || m_inMail)
    answer = "503 5.5.1 MAIL is not expected now\r\n";
  else if (!path)
    answer = "501 5.5.4 MAIL FROM:<address> expected\r\n";
  else if (declared_size(path->parameters) > m_host.m_sizeLimit)
    answer = "552 5.3.4 message too big\r\n";
  if (!accepted(reply("MAIL", answer))) return;
  reset_mail();
  m_inMail = true;
  m_message.from = path ? path->address : argument;
}

void smtp_session::rcpt(const std::string& argument) {
  const auto path = parse_path(argument, "TO:");
  const char* answer = "250 2.1.5 recipient ok\r\n";
  if (!m_inMail)
    answer = "503 5.5.1 RCPT is not expected now\r\n";
  else if (!path || path->address.empty())
    answer = "501 5.5.4 RCPT TO:<address> expected\r\n";
  if (accepted(reply("RCPT", answer))) m_message.to.push_back(path ? path->address : argument);
}

void smtp_session::data(const std::string& argument) {
  const char* answer = "354 end with a line of one dot\r\n";
  if (!m_inMail || m_message.to.empty()) answer = "503 5.5.1 DATA is not expected now\r\n";
  if (!argument.empty()) answer = "501 5.5.4 DATA takes no argument\r\n";
  if (!continued(reply("DATA", answer))) return;
  m_mode = mode::data;
  m_dataBytes = 0;
  m_atLineStart = true;
}

// Only the name of a command that somebody set up is shown: an unknown line may be a credential of
// a client that lost its place.
void smtp_session::other(const std::string& verb, const std::string& argument) {
  const char* const refusal = "502 5.5.1 command not known\r\n";
  if (verb == "AUTH") {
    heard(auth_for_transcript(argument));
    return auth_reply(reply(verb, ask_handler(verb, argument, refusal)));
  }
  heard(m_host.m_handlers.count(verb) ? verb : "[unknown command]");
  reply(verb, ask_handler(verb, argument, refusal));
}

void smtp_session::auth_reply(const std::string& sent) {
  m_mode = continued(sent) ? mode::auth : mode::command;
  if (accepted(sent)) m_authenticated = true;
}

void smtp_session::data_line(std::string_view text) {
  const bool whole = text.size() >= 2 && text[text.size() - 2] == '\r';
  const bool dotted = m_atLineStart && text[0] == '.';
  m_atLineStart = whole;
  if (dotted && text == ".\r\n") return finish_message();
  m_dataBytes += text.size();
  if (dotted) text.remove_prefix(1);
  if (m_message.data.size() <= m_host.m_sizeLimit) m_message.data.append(text);
}

void smtp_session::finish_message() {
  heard("[" + std::to_string(m_dataBytes) + " bytes of message]");
  heard(".");
  m_mode = mode::command;
  m_message.connection = number();
  m_message.helo = m_helo;
  m_message.tls = tls();
  m_message.authenticated = m_authenticated;
  const char* answer = "250 2.0.0 message accepted\r\n";
  if (m_message.data.size() > m_host.m_sizeLimit)
    answer = "552 5.3.4 message too big\r\n";
  else if (m_host.m_store && !m_host.m_store(m_message))
    answer = "451 4.3.0 message not kept\r\n";
  if (accepted(reply(smtp_host::end_of_data, answer)) && !m_host.m_store)
    m_host.m_messages.push_back(std::move(m_message));
  reset_mail();
}

std::string smtp_session::ask_handler(const std::string& verb, const std::string& argument,
                                      const char* refusal) const {
  const auto found = m_host.m_handlers.find(verb);
  if (found == m_host.m_handlers.end()) return refusal;
  return found->second({number(), tls(), argument});
}

void smtp_session::reset_mail() {
  m_inMail = false;
  m_message = {};
}

void smtp_host::capabilities(const std::vector<std::string>& lines) {
  m_capabilities = lines;
  if (m_tlsSetApart) return;
  m_capabilitiesUnderTls.clear();
  for (const std::string& line : lines)
    if (line != "STARTTLS") m_capabilitiesUnderTls.push_back(line);
}

void smtp_host::capabilities_under_tls(const std::vector<std::string>& lines) {
  m_capabilitiesUnderTls = lines;
  m_tlsSetApart = true;
}

void smtp_host::handle(const std::string& verb, handler answer) {
  m_handlers[verb] = std::move(answer);
}

std::unique_ptr<mail_peer> smtp_host::accept() { return std::make_unique<smtp_session>(*this); }

const std::vector<std::string>& smtp_host::announced(bool tls) const {
  return tls ? m_capabilitiesUnderTls : m_capabilities;
}

}  // namespace tav_test
