#include "session.h"

#include <algorithm>
#include <utility>

#include "mail_host.h"
#include "text.h"

namespace mailhost {
namespace {

constexpr size_t max_line = size_t{64} << 10;
constexpr size_t max_flood_bytes = size_t{16} << 20;  // bytes
constexpr size_t shown_lines = 20, shown_columns = 300;

std::string bytes_text(size_t count, const std::string& what) {
  return "[" + std::to_string(count) + " bytes" + what + "]";
}

}  // namespace

session::session(mail_host& host, const dialect& words, std::string address)
    : m_host(host), m_words(words), m_address(std::move(address)), m_number(host.connections()) {
  tell(event::connected, m_address);
}

void session::connected(bool tls, const std::string& cipher) {
  m_tls = tls;
  if (tls) tell(event::tls, cipher);
  reply("greeting", greeting());
}

void session::received(std::string_view bytes) {
  if (m_hungUp) return;
  if (mail_host::record* const record = m_host.record_of(m_number))
    (m_tls ? record->under_tls : record->in_clear).append(bytes);
  m_pending.append(bytes);
  go_on();
}

void session::go_on() {
  std::string_view rest = m_pending;
  while (!rest.empty() && actions.empty() && !m_hungUp && !m_awaitsTls) {
    const size_t taken = take(rest);
    if (taken == 0) break;
    rest.remove_prefix(taken);
  }
  // What was sent in clear after STARTTLS must not be taken for something said under TLS.
  if (m_awaitsTls && !rest.empty()) {
    note(bytes_text(rest.size(), " in clear after the command that begins TLS are ignored"));
    rest = {};
  }
  m_pending.erase(0, m_pending.size() - rest.size());
}

void session::tls_started(const std::string& cipher) {
  m_tls = true;
  m_awaitsTls = false;
  tell(event::tls, cipher);
  forget();
}

void session::closed() {
  if (!m_pending.empty()) heard(bytes_text(m_pending.size(), " without line end"));
  m_pending.clear();
  if (mail_host::record* const record = m_host.record_of(m_number)) record->closed_by_client = true;
  tell(event::closed, "");
}

std::string session::talk(std::string_view bytes) {
  std::string said;
  received(bytes);
  while (!m_hungUp || !actions.empty()) {
    if (actions.empty()) received("");
    if (actions.empty()) break;
    const action next = std::move(actions.front());
    actions.pop_front();
    said += next.bytes;
    if (next.kind == action::start_tls) tls_started();
  }
  return said;
}

size_t session::take(std::string_view bytes) {
  const size_t end = bytes.find('\n');
  if (end != std::string_view::npos) {
    take_line(bytes.substr(0, end));
    return end + 1;
  }
  if (bytes.size() <= max_line) return 0;
  reply("other", std::string(m_words.bad_line) + "the line is too long");
  hang_up();
  return bytes.size();
}

void session::take_line(std::string_view line) {
  if (line.empty() || line.back() != '\r') {
    heard(bytes_text(line.size(), " in a line that ends in LF without CR"));
    m_awaitsAnswer = false;
    reply("other", std::string(m_words.bad_line) + "a line ends in CR LF");
    return;
  }
  line.remove_suffix(1);
  if (m_awaitsAnswer)
    auth_answer(std::string(line));
  else
    command(line);
}

deviation session::next(const std::string& point) {
  deviation how = m_hungUp ? deviation() : m_host.next(m_words.speaks, point);
  if (!how.source.empty()) note("script: " + how.source);
  return how;
}

std::string session::reply(const std::string& point, const std::string& ordinary, show what) {
  return reply(next(point), ordinary, what);
}

std::string session::reply(const deviation& how, const std::string& ordinary, show what) {
  if (m_hungUp) return "";
  std::string counts = how.outcome(ordinary + "\r\n");
  std::string bytes = counts;
  const size_t most = max_flood_bytes / std::max(bytes.size(), size_t{1});
  for (size_t said = 1; said < std::min(how.flood, most); ++said) bytes += counts;
  bytes += how.injected;
  if (how.cut) bytes.resize(std::min(bytes.size(), *how.cut));

  if (how.delay.count() != 0) actions.push_back({action::wait, {}, how.delay});
  if (!bytes.empty()) {
    show_reply(bytes, what);
    actions.push_back({action::send, std::move(bytes), how.drip});
  }
  if (how.cut || how.end == deviation::ending::close) hang_up();
  if (how.end == deviation::ending::reset) hang_up(action::reset);
  return counts;
}

bool session::is_positive(std::string_view reply) const { return begins(reply, m_words.positive); }

void session::start_tls() {
  if (m_hungUp) return;
  m_awaitsTls = true;
  actions.push_back({action::start_tls});
}

void session::hang_up(action::kind_type how) {
  if (m_hungUp) return;
  m_hungUp = true;
  actions.push_back({how});
}

void session::tell(event::kind_type kind, const std::string& text, const std::string& detail,
                   bool failed, const mail* message) {
  if (!m_host.on_event) return;
  const std::string shown = kind == event::received ? text : printable(text);  // a path is used
  m_host.on_event({kind, m_number, m_words.speaks, shown, detail, failed, message});
}

std::vector<std::string> session::methods() const {
  std::vector<std::string> all = m_host.given().methods;
  if (m_tls && !m_host.given().tokens.empty()) {
    const std::vector<std::string>& bearer = sasl_login::bearer_methods();
    all.insert(all.end(), bearer.begin(), bearer.end());
  }
  return all;
}

void session::auth(const std::string& arguments, const std::string& refusal) {
  const size_t blank = arguments.find(' ');
  const bool has_response = blank != std::string::npos;
  const std::vector<std::string> offered = methods();
  m_method = upper_case(arguments.substr(0, blank));
  const bool is_offered = std::find(offered.begin(), offered.end(), m_method) != offered.end();
  // A word that is no method may be a credential of a client that lost its place.
  if (!is_offered) m_method.clear();
  heard("AUTH " + m_method + (is_offered && !has_response ? "" : " [masked]"));
  const std::vector<std::string>& bearer = sasl_login::bearer_methods();
  const bool takes_token = std::find(bearer.begin(), bearer.end(), m_method) != bearer.end();
  m_login = std::make_unique<sasl_login>(
      m_method, takes_token ? m_host.given().tokens : m_host.given().users,
      sasl_login::host_words{m_words.service, m_host.given().name, m_host.nonce()});
  if (!refusal.empty()) return auth_reply("AUTH", refusal);
  if (!is_offered) return auth_reply("AUTH", m_words.not_offered);
  const std::string response = has_response ? arguments.substr(blank + 1) : "";
  auth_step("AUTH", response == "=" ? "" : response, has_response);
}

void session::auth_answer(const std::string& line) {
  heard("[masked]");
  auth_step("answer", line, true);
}

void session::auth_step(const std::string& point, const std::string& response, bool has_response) {
  using verdict = sasl_login::verdict;
  const std::optional<std::string> text = from_base64(response);
  if (has_response && !text) {
    const char* const what = response == "*" ? "the login is given up" : "that is not base64";
    return auth_reply(point, m_words.bad_answer + std::string(what));
  }
  const verdict found = m_login->proceed(has_response ? text : std::nullopt);
  if (found == verdict::challenge)
    auth_reply(point, m_words.challenge + to_base64(m_login->challenge()));
  else
    auth_reply(point, found == verdict::granted ? m_words.granted : m_words.refused);
}

// The reply that was sent decides, and not the one that is due.
void session::auth_reply(const std::string& point, const std::string& ordinary) {
  const std::string sent = reply(point, ordinary);
  m_awaitsAnswer = begins(sent, m_words.go_on);
  if (m_awaitsAnswer) return;
  const std::string user = m_login->user();
  if (is_positive(sent)) {
    tell(event::login, user, m_method);
    logged_in(user);
  } else {
    tell(event::login, user, m_login->reason(), true);
  }
}

// The transcript of a message shows that it was sent, but not what is in it.
void session::show_reply(std::string_view bytes, show what) {
  if (!m_host.on_event) return;
  const size_t line = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
  if (begins(bytes, m_words.challenge))
    return tell(event::server, m_words.challenge + std::string("[masked]"));
  if (what == show::all || !is_positive(bytes)) return show_lines(bytes);
  show_lines(bytes.substr(0, line));
  if (line < bytes.size()) tell(event::server, bytes_text(bytes.size() - line, " of message"));
}

void session::show_lines(std::string_view bytes) {
  for (size_t count = 0; !bytes.empty(); ++count) {
    if (count == shown_lines) return tell(event::server, bytes_text(bytes.size(), " more"));
    const size_t end = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
    std::string_view line = bytes.substr(0, end);
    bytes.remove_prefix(end);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    const size_t more = line.size() - std::min(line.size(), shown_columns);
    tell(event::server, std::string(line.substr(0, shown_columns)) +
                            (more != 0 ? " " + bytes_text(more, " more") : ""));
  }
}

}  // namespace mailhost
