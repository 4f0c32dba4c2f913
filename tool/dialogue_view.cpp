#include "dialogue_view.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <utility>

#include "mail_log.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "utl_os.h"
#include "words.h"

namespace tavmail {

namespace {

constexpr size_t kLongestViewed = 2000;
constexpr size_t kMostReplyLines = 100;  // of one reply
constexpr size_t kMostExchanges = 300;
constexpr size_t kMostConnections = 20;
constexpr std::string_view kEndOfData = "\r\n.\r\n";
constexpr std::string_view kEndOfMessage = ".\r\n";
constexpr char kEndOfDataVerb[] = ".";
constexpr char kUnknownVerb[] = "?";

// What the library sends. Any other line is not shown: it can only be a secret or a mail.
constexpr std::string_view kVerbs[] = {"EHLO", "HELO", "STARTTLS", "AUTH", "MAIL", "RCPT", "DATA",
                                       "RSET", "NOOP", "QUIT",     "CAPA", "STLS", "USER", "PASS",
                                       "APOP", "STAT", "LIST",     "UIDL", "RETR", "TOP",  "DELE"};

std::string upper_case(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](char ch) {
    return ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch;
  });
  return result;
}

std::string verb_of(std::string_view line) { return upper_case(line.substr(0, line.find(' '))); }

// True when what follows `line`, which ends in a blank, is secret: all that PASS has, and what AUTH
// and APOP have after the method and the user.
bool begins_secret(std::string_view line) {
  const std::string verb = verb_of(line);
  if (verb == "PASS") return true;
  return (verb == "AUTH" || verb == "APOP") && std::count(line.begin(), line.end(), ' ') > 1;
}

// What a server asks in a login, without the secrets that it may repeat.
std::string challenge_of(std::string_view line, const secret_echo& secrets) {
  const size_t blank = line.find(' ');
  if (blank == line.npos || blank + 1 == line.size()) return {};
  line.remove_prefix(blank + 1);
  void* bytes = nullptr;
  long length = 0;
  const bool is_decoded = quorvelmida::tav_eml_mlutl_mime_utility::from_b64(
                              line.data(), static_cast<long>(line.size()), bytes, length) != 0;
  if (!is_decoded || bytes == nullptr) return {};
  const std::string decoded(static_cast<const char*>(bytes), static_cast<size_t>(length));
  explicit_bzero(bytes, static_cast<size_t>(length));
  UtlOS::MemFree(bytes);
  return presentable(secrets.masked(decoded));
}

// What stands between "<" and ">".
std::string address_of(std::string_view line) {
  const size_t begin = line.find('<');
  const size_t end = line.rfind('>');
  if (begin == std::string_view::npos || end == std::string_view::npos || end < begin) return {};
  return std::string(line.substr(begin + 1, end - begin - 1));
}

// True for a reply that keeps the mail from being sent.
bool stops_mail(const exchange& entry) {
  const bool is_data = entry.verb == "DATA";
  if (!is_data && entry.verb != "MAIL" && entry.verb != "RCPT") return false;
  const verdict wanted = is_data ? verdict::goes_on : verdict::success;
  return entry.is_no() || (entry.is_complete && entry.judged != wanted);
}

}  // namespace

void dialogue_view::take(TAV_WIRETAP_EVENT event, std::string_view bytes) {
  switch (event) {
    case TAV_WIRETAP_CONNECTING:
      show("* ", "trying " + std::string(bytes));
      begin_connecting();
      break;
    case TAV_WIRETAP_CONNECTED:
      show("* ", "connected to " + std::string(bytes));
      begin_connection();
      break;
    case TAV_WIRETAP_SENT:
      sent(bytes);
      break;
    case TAV_WIRETAP_RECEIVED:
      received(bytes);
      break;
    case TAV_WIRETAP_TLS_STARTED:
      begin_tls(bytes);
      break;
    case TAV_WIRETAP_TLS_REFUSED: {
      const size_t end = std::min(bytes.find('\n'), bytes.size());
      current_connection().tls_refused = std::string(bytes.substr(0, end));
      bytes.remove_prefix(std::min(end + 1, bytes.size()));
      current_connection().tls_refusal = presentable(bytes.empty() ? latest().tls_refused : bytes);
      show("* ", "certificate refused: " + latest().tls_refusal);
      break;
    }
    case TAV_WIRETAP_TLS_FAILED:
      current_connection().tls_failure = presentable(bytes);
      show("* ", "TLS failed: " + latest().tls_failure);
      break;
    case TAV_WIRETAP_TLS_CERTIFICATE:
      current_connection().certificate = std::string(bytes);
      break;
    case TAV_WIRETAP_CLOSED:
      cut_server_line();
      show("* ", "closed");
      break;
  }
}

void dialogue_view::show(const char* who, std::string_view text) {
  if (m_sink) m_sink(who + presentable(text));
}

bool dialogue_view::is_next_pop3() const {
  if (m_kind != dialogue_kind::pop3_before_smtp) return m_kind == dialogue_kind::pop3;
  return m_connections.empty() || !m_connections.back().is_pop3;
}

// One address after the other may be tried for one connection.
void dialogue_view::begin_connecting() {
  if (!m_connecting) m_pop3 = is_next_pop3();
  m_connecting = true;
}

void dialogue_view::begin_connection() {
  begin_connecting();
  m_connecting = false;
  m_mode = mode::commands;
  m_underTls = false;
  m_secret = false;
  m_secrets.end();
  m_fromClient.clear();
  m_fromServer.clear();
  m_latestByte = '\0';
  m_unfinished = 0;
  if (m_connections.size() >= kMostConnections) m_connections.pop_front();
  m_connections.push_back({m_pop3, {}, {}, {}, {}, {}});
  begin_exchange("");
}

void dialogue_view::begin_tls(std::string_view description) {
  m_underTls = true;
  const bool is_before_greeting =
      !m_exchanges.empty() && m_exchanges.back().verb.empty() && m_exchanges.back().lines == 0;
  if (is_before_greeting) m_exchanges.back().under_tls = true;
  current_connection().tls = presentable(description);
  show("* ", "TLS: " + latest().tls);
}

connection& dialogue_view::current_connection() {
  if (m_connections.empty()) m_connections.emplace_back();
  return m_connections.back();
}

const connection& dialogue_view::latest() const {
  static const connection kNone;
  return m_connections.empty() ? kNone : m_connections.back();
}

bool dialogue_view::is_pop3() const {
  if (m_connecting) return m_pop3;
  if (m_connections.empty()) return is_next_pop3();
  // A login that is over was good: the connection to send over is next.
  const bool is_over = !m_exchanges.empty() && m_exchanges.back().verb == "QUIT";
  return m_pop3 && !(is_over && m_kind == dialogue_kind::pop3_before_smtp);
}

void dialogue_view::begin_exchange(std::string verb) {
  if (m_exchanges.size() >= kMostExchanges) m_exchanges.pop_front();
  exchange entry;
  entry.verb = std::move(verb);
  entry.under_tls = m_underTls;
  entry.is_pop3 = m_pop3;
  m_exchanges.push_back(std::move(entry));
}

const exchange* dialogue_view::decisive() const {
  for (const exchange& entry : m_exchanges) {
    if (entry.verb == kEndOfDataVerb) return &entry;
  }
  const auto refused = std::find_if(m_exchanges.begin(), m_exchanges.end(), stops_mail);
  if (refused != m_exchanges.end()) return &*refused;
  return m_connecting || m_exchanges.empty() ? nullptr : &m_exchanges.back();
}

const exchange* dialogue_view::refused_login() const {
  return m_refusedLogin.verb.empty() ? nullptr : &m_refusedLogin;
}

void dialogue_view::sent(std::string_view bytes) {
  if (m_mode == mode::message) {
    // Whoever gives the next command has read the message to its end.
    if (!m_messageEnded) {
      show("S: ", "[" + std::to_string(m_messageBytes - m_dataBytes) + " bytes of mail]");
    }
    m_mode = mode::commands;
    m_fromServer.clear();
  }
  while (!bytes.empty()) {
    if (m_mode == mode::commands && m_fromClient.empty() && !m_exchanges.empty() &&
        m_exchanges.back().verb == "DATA" && m_exchanges.back().judged == verdict::goes_on) {
      m_mode = mode::data;
      m_endMatched = 2;  // a mail begins at the start of a line
      m_dataBytes = 0;
    }
    if (m_mode == mode::data) {
      bytes.remove_prefix(take_data(bytes));
      continue;
    }
    client_byte(bytes.front());
    bytes.remove_prefix(1);
  }
}

// Counts mail data up to its end. Returns how many bytes were data or its end.
size_t dialogue_view::take_data(std::string_view bytes) {
  size_t taken = 0;
  while (taken < bytes.size() && m_endMatched < kEndOfData.size()) {
    if (m_endMatched == 0) {
      taken = std::min(bytes.find('\r', taken), bytes.size());
      if (taken == bytes.size()) break;
    }
    const char ch = bytes[taken++];
    m_endMatched = ch == kEndOfData[m_endMatched] ? m_endMatched + 1 : ch == '\r' ? 1 : 0;
  }
  m_dataBytes += taken;
  if (m_endMatched == kEndOfData.size()) {
    show("C: ", "[" + std::to_string(m_dataBytes - 3) + " bytes of mail]");
    show("C: ", kEndOfDataVerb);
    m_endSent = true;
    m_mode = mode::commands;
    begin_exchange(kEndOfDataVerb);
  }
  return taken;
}

// No copy is made of a secret.
void dialogue_view::client_byte(char ch) {
  if (ch == '\n') return client_line();
  if (m_secret || m_mode == mode::login) {
    if (ch != '\r') m_secrets.add(ch);
    return;
  }
  if (m_fromClient.size() < kLongestViewed) m_fromClient += ch;
  if (ch == ' ') m_secret = begins_secret(m_fromClient);
}

void dialogue_view::client_line() {
  cut_server_line();
  m_secrets.end();
  const bool is_secret = std::exchange(m_secret, false);
  const std::string text = presentable(std::exchange(m_fromClient, {}));
  if (m_mode == mode::login) {
    show("C: ", kMask);
    exchange answer;
    if (!m_exchanges.empty()) answer = m_exchanges.back();
    begin_exchange("AUTH");
    m_exchanges.back().method = answer.method;
    m_exchanges.back().challenge = answer.challenge;
    m_exchanges.back().has_secret = true;
    return;
  }
  const std::string verb = verb_of(text);
  if (std::find(std::begin(kVerbs), std::end(kVerbs), verb) == std::end(kVerbs)) {
    show("C: ", kMask);
    begin_exchange(kUnknownVerb);
    return;
  }
  show("C: ", is_secret ? text + " " + kMask : text);
  begin_exchange(verb);
  if (verb == "AUTH") {
    m_mode = mode::login;
    m_hasLogin = m_hasLogin || !m_pop3;
    m_exchanges.back().method = verb_of(text.substr(std::min<size_t>(5, text.size())));
    m_exchanges.back().has_secret = is_secret;
  }
  if (verb == "MAIL" || verb == "RCPT") m_exchanges.back().address = address_of(text);
  if (verb == "MAIL") {
    m_sender = address_of(text);
    m_recipients.clear();
  } else if (verb == "RCPT") {
    m_recipients.push_back(address_of(text));
  }
}

void dialogue_view::received(std::string_view bytes) {
  while (!bytes.empty()) {
    if (m_mode == mode::message) {
      bytes.remove_prefix(take_message(bytes));
      continue;
    }
    const size_t count = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
    const std::string_view piece = bytes.substr(0, count);
    bytes.remove_prefix(count);
    m_fromServer.append(
        piece.substr(0, kLongestViewed - std::min(m_fromServer.size(), kLongestViewed)));
    const bool is_end = is_line_end(piece);
    m_latestByte = piece.back();
    if (is_end) server_line(std::exchange(m_fromServer, {}), false);
  }
}

// A line feed alone ends no line, but for the one in front of a message.
bool dialogue_view::is_line_end(std::string_view piece) const {
  if (piece.back() != '\n') return false;
  const char before = piece.size() > 1 ? piece[piece.size() - 2] : m_latestByte;
  if (before == '\r') return true;
  if (m_exchanges.empty() || !m_pop3 || m_exchanges.back().lines > 0) return false;
  const std::string& verb = m_exchanges.back().verb;
  return verb == "RETR" || verb == "TOP";
}

// Takes a line of a message, or a piece of one, and what comes after its last line, which is no
// reply. Returns how many bytes it was.
size_t dialogue_view::take_message(std::string_view bytes) {
  m_hasExcess = m_messageEnded;
  if (m_messageEnded) return bytes.size();
  const size_t count = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
  const std::string_view piece = bytes.substr(0, count);
  m_messageBytes += count;
  m_unfinished = piece.back() == '\n' ? 0 : m_unfinished + count;
  if (is_end_of_message(piece)) {
    m_messageEnded = true;
    show("S: ", "[" + std::to_string(m_messageBytes - m_dataBytes) + " bytes of mail]");
    show("S: ", ".");
  }
  return count;
}

// No copy is made of lines that come whole.
bool dialogue_view::is_end_of_message(std::string_view piece) {
  if (m_fromServer.empty() && piece.back() == '\n') return piece == kEndOfMessage;
  if (m_fromServer.size() <= kEndOfMessage.size()) {
    m_fromServer.append(piece.substr(0, kEndOfMessage.size() + 1));
  }
  if (piece.back() != '\n') return false;
  return std::exchange(m_fromServer, {}) == kEndOfMessage;
}

void dialogue_view::cut_server_line() {
  if (m_fromServer.empty() || m_mode == mode::message) return;
  server_line(std::exchange(m_fromServer, {}), true);
}

void dialogue_view::server_line(std::string_view line, bool is_cut) {
  line = without_line_end(line);
  if (m_exchanges.empty()) begin_exchange("");
  exchange& current = m_exchanges.back();
  if (is_cut) {
    current.judge_cut_line(line);
  } else {
    current.judge(line);
  }
  std::string text = presentable(m_secrets.masked(line));
  if (m_mode == mode::login && current.judged == verdict::goes_on) {
    current.challenge = challenge_of(line, m_secrets);
    text = (m_pop3 ? "+ " : text.substr(0, 4)) + kMask;
  }
  show("S: ", text);
  if (current.reply.size() < kMostReplyLines) current.reply.push_back(text);
  if (current.is_complete) take_verdict(current);
}

void dialogue_view::take_verdict(const exchange& current) {
  if (m_mode == mode::login && current.judged != verdict::goes_on) {
    m_mode = mode::commands;
    const bool is_refused =
        current.judged == verdict::refused || current.judged == verdict::nonsense;
    if (is_refused) m_refusedLogin = current;
    if (current.is_success()) m_refusedLogin = exchange();
  }
  if (current.verb == kEndOfDataVerb) m_accepted = current.is_success();
  if (m_pop3 && current.is_success() && (current.verb == "RETR" || current.verb == "TOP")) {
    m_mode = mode::message;
    m_messageEnded = false;
    m_hasExcess = false;
    m_dataBytes = m_messageBytes;
  }
}

uint64_t dialogue_view::mail_bytes() const {
  constexpr size_t kEnd = 3;  // ".", CR and LF
  return m_dataBytes - (m_endSent && m_dataBytes >= kEnd ? kEnd : 0);
}

dialogue_tap::dialogue_tap(dialogue_view& view) : m_view(view) {
  const auto observe = [](void* context, TAV_WIRETAP_EVENT event, const char* bytes,
                          size_t length) {
    static_cast<dialogue_view*>(context)->take(event, {bytes, length});
  };
  tav_wiretap_set(observe, &view);
}

dialogue_tap::~dialogue_tap() {
  tav_wiretap_set(nullptr, nullptr);
  mail_log::note(m_view);
}

dialogue_view::line_sink lines_to_stderr(bool is_shown) {
  if (!is_shown) return {};
  return [](const std::string& line) { std::cerr << line << '\n'; };
}

}  // namespace tavmail
