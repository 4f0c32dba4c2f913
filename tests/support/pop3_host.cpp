#include "pop3_host.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

namespace tav_test {
namespace {

using words = std::vector<std::string>;

constexpr size_t whole_message = SIZE_MAX;

bool accepted(const std::string& reply) { return reply.compare(0, 3, "+OK") == 0; }

std::string ok(const std::string& text) { return "+OK " + text + "\r\n"; }
std::string error(const std::string& text) { return "-ERR " + text + "\r\n"; }

// Two blanks in a row give an empty word, which no command takes for a number.
words split(std::string_view text) {
  words found;
  for (size_t blank = 0; blank != std::string_view::npos;) {
    blank = text.find(' ');
    found.emplace_back(text.substr(0, blank));
    text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
  }
  return found;
}

std::optional<size_t> number_of(const std::string& word) {
  size_t value = 0;
  const char* const last = word.data() + word.size();
  const auto result = std::from_chars(word.data(), last, value);
  if (result.ec != std::errc() || result.ptr != last) return std::nullopt;
  return value;
}

// As it is sent, apart from the dots: the last line ends even when the data leaves it open.
size_t size_of(const pop3_message& message) {
  const std::string& data = message.data;
  const bool open = !data.empty() && (data.size() < 2 || data.substr(data.size() - 2) != "\r\n");
  return data.size() + (open ? 2 : 0);
}

// The header, the empty line, so many lines of the body, and the line of one dot that ends it all.
std::string transfer(std::string_view data, size_t body_lines) {
  std::string sent;
  bool in_body = false;
  while (!data.empty() && !(in_body && body_lines == 0)) {
    const size_t end = data.find("\r\n");
    const std::string_view line = data.substr(0, end);
    if (!line.empty() && line[0] == '.') sent += '.';
    sent.append(line).append("\r\n");
    if (in_body)
      --body_lines;
    else
      in_body = line.empty();
    data.remove_prefix(end == std::string_view::npos ? data.size() : end + 2);
  }
  return sent + ".\r\n";
}

bool matches(const std::map<std::string, std::string>& secrets, const std::string& user,
             const std::string& secret) {
  const auto found = secrets.find(user);
  return found != secrets.end() && found->second == secret;
}

}  // namespace

class pop3_session final : public scripted_session {
 public:
  explicit pop3_session(pop3_host& host) : scripted_session(host), m_host(host) {}

 protected:
  std::string greeting_text() override {
    return ok("POP3 server ready" + (m_host.m_stamp.empty() ? "" : " " + m_host.m_stamp));
  }
  void line(std::string_view text) override;
  void forget() override {
    m_state = authorization;
    m_entries.clear();
  }

 private:
  enum state { authorization = 1, transaction = 2, any = authorization | transaction };
  enum class show { all, verb };  // in the transcript

  // `answer` is the ordinary reply, `effect` what a positive one brings about.
  struct command_entry {
    const char* verb;
    state where;
    size_t least, most;  // arguments
    show shown;
    std::string (pop3_session::*answer)(const words& arguments) const;
    void (pop3_session::*effect)(const words& arguments);
  };
  static const command_entry commands[];

  struct entry {
    std::shared_ptr<const pop3_message> message;
    bool deleted;
  };

  void command(std::string_view text);
  std::string ordinary(const command_entry& known, const words& arguments) const;

  std::string simple(const words&) const { return ok("done"); }
  std::string pass(const words& arguments) const;
  std::string apop(const words& arguments) const;
  std::string capa(const words& arguments) const;
  std::string stls(const words&) const {
    return !tls() && m_host.announces("STLS") ? ok("begin TLS") : error("STLS is not offered");
  }
  std::string stat(const words& arguments) const;
  std::string list(const words& arguments) const {
    return listing(arguments, [](const pop3_message& m) { return std::to_string(size_of(m)); });
  }
  std::string uidl(const words& arguments) const {
    return listing(arguments, [](const pop3_message& m) { return m.uid; });
  }
  std::string retr(const words& arguments) const {
    return message_text(arguments[0], whole_message);
  }
  std::string top(const words& arguments) const;
  std::string dele(const words& arguments) const {
    return find(arguments[0]) ? ok("deleted") : error("no such message");
  }

  void name_user(const words& arguments) { m_user = arguments[0]; }
  void log_in(const words&);
  void begin_tls(const words&) { start_tls(); }
  void mark(const words& arguments) {
    if (const auto at = find(arguments[0])) m_entries[*at].deleted = true;
  }
  void unmark(const words&) {
    for (entry& e : m_entries) e.deleted = false;
  }
  void leave(const words&);

  std::optional<size_t> find(const std::string& word) const;
  std::string listing(const words& arguments, std::string (*describe)(const pop3_message&)) const;
  std::string message_text(const std::string& number, size_t body_lines) const;

  pop3_host& m_host;
  state m_state = authorization;
  std::optional<std::string> m_user;  // of the USER just before
  std::vector<entry> m_entries;
};

// The script may grant a command that is refused by itself, so that an effect has to cope with
// arguments which its answer would not take; their number is right.
const pop3_session::command_entry pop3_session::commands[] = {
    {"USER", authorization, 1, 1, show::all, &pop3_session::simple, &pop3_session::name_user},
    {"PASS", authorization, 1, 1, show::verb, &pop3_session::pass, &pop3_session::log_in},
    {"APOP", authorization, 2, 2, show::verb, &pop3_session::apop, &pop3_session::log_in},
    {"CAPA", any, 0, 0, show::all, &pop3_session::capa, nullptr},
    {"STLS", authorization, 0, 0, show::all, &pop3_session::stls, &pop3_session::begin_tls},
    {"STAT", transaction, 0, 0, show::all, &pop3_session::stat, nullptr},
    {"LIST", transaction, 0, 1, show::all, &pop3_session::list, nullptr},
    {"UIDL", transaction, 0, 1, show::all, &pop3_session::uidl, nullptr},
    {"RETR", transaction, 1, 1, show::all, &pop3_session::retr, nullptr},
    {"TOP", transaction, 2, 2, show::all, &pop3_session::top, nullptr},
    {"DELE", transaction, 1, 1, show::all, &pop3_session::dele, &pop3_session::mark},
    {"NOOP", transaction, 0, 0, show::all, &pop3_session::simple, nullptr},
    {"RSET", transaction, 0, 0, show::all, &pop3_session::simple, &pop3_session::unmark},
    {"QUIT", any, 0, 0, show::all, &pop3_session::simple, &pop3_session::leave},
};

void pop3_session::line(std::string_view text) {
  text.remove_suffix(1);
  if (!text.empty() && text.back() == '\r') return command(text.substr(0, text.size() - 1));
  heard("[line of " + std::to_string(text.size()) + " bytes without CR]");
  m_user.reset();
  reply("", error("a line ends in CR LF"));
}

// Only the name of a known command is shown: an unknown line may be a credential of a client that
// lost its place.
void pop3_session::command(std::string_view text) {
  const size_t blank = text.find(' ');
  const std::string verb = upper_case(text.substr(0, blank));
  const auto known = std::find_if(std::begin(commands), std::end(commands),
                                  [&](const command_entry& c) { return verb == c.verb; });
  if (known == std::end(commands)) {
    heard("[unknown command]");
    m_user.reset();
    reply(verb, error("command not known"));
    return;
  }
  heard(known->shown == show::all || blank == std::string_view::npos ? std::string(text)
                                                                     : verb + " [masked]");
  words arguments;
  if (blank != std::string_view::npos) {
    const std::string_view rest = text.substr(blank + 1);
    const bool with_blanks = verb == "USER" || verb == "PASS";
    arguments = with_blanks ? words{std::string(rest)} : split(rest);
  }
  const std::string answer = ordinary(*known, arguments);
  m_user.reset();
  const bool countable = arguments.size() >= known->least && arguments.size() <= known->most;
  if (accepted(reply(verb, answer)) && known->effect != nullptr && countable)
    (this->*known->effect)(arguments);
}

std::string pop3_session::ordinary(const command_entry& known, const words& arguments) const {
  if ((known.where & m_state) == 0) return error("not in this state");
  if (arguments.size() < known.least || arguments.size() > known.most)
    return error("wrong number of arguments");
  return (this->*known.answer)(arguments);
}

std::string pop3_session::pass(const words& arguments) const {
  if (!m_user) return error("PASS comes right after USER");
  return matches(m_host.m_passwords, *m_user, arguments[0]) ? ok("logged in")
                                                            : error("wrong user or password");
}

std::string pop3_session::apop(const words& arguments) const {
  return matches(m_host.m_digests, arguments[0], arguments[1]) ? ok("logged in")
                                                               : error("wrong user or digest");
}

std::string pop3_session::capa(const words&) const {
  std::string answer = ok("capabilities");
  for (const std::string& line : m_host.m_capabilities)
    if (!tls() || line != "STLS") answer += line + "\r\n";
  return answer + ".\r\n";
}

std::string pop3_session::stat(const words&) const {
  size_t count = 0, octets = 0;
  for (const entry& e : m_entries) {
    if (e.deleted) continue;
    ++count;
    octets += size_of(*e.message);
  }
  return ok(std::to_string(count) + " " + std::to_string(octets));
}

std::string pop3_session::top(const words& arguments) const {
  const auto lines = number_of(arguments[1]);
  return lines ? message_text(arguments[0], *lines) : error("a number of lines expected");
}

void pop3_session::log_in(const words&) {
  m_state = transaction;
  m_entries.clear();
  for (const auto& message : *m_host.m_mailbox) m_entries.push_back({message, false});
}

void pop3_session::leave(const words&) {
  pop3_mailbox& box = *m_host.m_mailbox;
  for (const entry& e : m_entries)
    if (e.deleted) box.erase(std::remove(box.begin(), box.end(), e.message), box.end());
  hang_up();
}

// The place of a message that is there and not marked as deleted.
std::optional<size_t> pop3_session::find(const std::string& word) const {
  const size_t at = number_of(word).value_or(0) - 1;  // "0" ends up behind all of them
  if (at >= m_entries.size() || m_entries[at].deleted) return std::nullopt;
  return at;
}

std::string pop3_session::listing(const words& arguments,
                                  std::string (*describe)(const pop3_message&)) const {
  const auto row = [&](size_t at) {
    return std::to_string(at + 1) + " " + describe(*m_entries[at].message);
  };
  if (!arguments.empty()) {
    const auto at = find(arguments[0]);
    return at ? ok(row(*at)) : error("no such message");
  }
  std::string answer = ok("list follows");
  for (size_t at = 0; at < m_entries.size(); ++at)
    if (!m_entries[at].deleted) answer += row(at) + "\r\n";
  return answer + ".\r\n";
}

std::string pop3_session::message_text(const std::string& number, size_t body_lines) const {
  const auto at = find(number);
  if (!at) return error("no such message");
  const pop3_message& message = *m_entries[*at].message;
  const auto head = body_lines == whole_message ? std::to_string(size_of(message)) + " octets"
                                                : std::string("top of the message");
  return ok(head) + transfer(message.data, body_lines);
}

void pop3_host::account(const std::string& user, const std::string& password) {
  m_passwords[user] = password;
}

void pop3_host::expect_apop(const std::string& user, const std::string& digest) {
  m_digests[user] = digest;
}

void pop3_host::add(const std::string& uid, const std::string& data) {
  m_mailbox->push_back(std::make_shared<const pop3_message>(pop3_message{uid, data}));
}

std::unique_ptr<mail_peer> pop3_host::accept() { return std::make_unique<pop3_session>(*this); }

bool pop3_host::announces(const std::string& capability) const {
  return std::find(m_capabilities.begin(), m_capabilities.end(), capability) !=
         m_capabilities.end();
}

}  // namespace tav_test
