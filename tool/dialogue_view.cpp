#include "dialogue_view.h"

#include <algorithm>
#include <utility>

#include "message_text.h"

namespace tavmail {

namespace {

constexpr size_t kLongestLine = 2000;
constexpr size_t kMostLines = 100;  // of one reply, and most exchanges that are kept
constexpr std::string_view kEndOfData = "\r\n.\r\n";
constexpr char kMask[] = "****";
constexpr char kEndOfDataVerb[] = ".";
constexpr std::string_view kEndOfMessage = ".\r\n";

std::string upper_case(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](char ch) {
    return ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch;
  });
  return result;
}

// Cuts the next word off the front of `text`.
std::string_view take_word(std::string_view& text) {
  const std::string_view word = text.substr(0, text.find(' '));
  text.remove_prefix(std::min(word.size() + 1, text.size()));
  return word;
}

bool is_continuation(char ch) { return (static_cast<unsigned char>(ch) & 0xC0) == 0x80; }

// U+2028 to U+202E and U+2066 to U+2069 let a text look like another one.
bool turns_direction(std::string_view character) {
  return (character >= "\xE2\x80\xA8" && character <= "\xE2\x80\xAE") ||
         (character >= "\xE2\x81\xA6" && character <= "\xE2\x81\xA9");
}

bool is_final(std::string_view line) { return line.size() < 4 || line[3] != '-'; }

// The command with what must not be seen behind it masked.
std::string masked(std::string_view line, const std::string& verb) {
  std::string_view rest = line;
  take_word(rest);
  if (verb == "PASS") return verb + " " + kMask;
  if (verb != "AUTH" && verb != "APOP") return std::string(line);
  const std::string_view first = take_word(rest);  // the method, or the user
  return verb + " " + std::string(first) + (rest.empty() ? "" : std::string(" ") + kMask);
}

}  // namespace

std::string reply_text(const exchange* entry) {
  if (entry == nullptr) return {};
  std::string text;
  for (const std::string& line : entry->reply) {
    if (text.empty()) {
      text = line;
    } else {
      text += " " + line.substr(entry->is_pop3 ? 0 : std::min<size_t>(4, line.size()));
    }
  }
  return presentable(text);
}

std::string presentable(std::string_view text) {
  size_t end = std::min(text.size(), kLongestLine);
  while (end < text.size() && end > kLongestLine - 4 && is_continuation(text[end])) --end;
  std::string result(text.substr(0, end));
  const bool is_text = is_utf8(result);
  for (size_t i = 0; i < result.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(result[i]);
    const bool is_control = byte < 0x20 || byte == 0x7F;
    // The controls from U+0080 to U+009F steer terminals too.
    const bool is_c1 = is_text && byte == 0xC2 && static_cast<unsigned char>(result[i + 1]) < 0xA0;
    if (is_c1) result[i + 1] = ' ';
    if (is_control || is_c1) result[i] = ' ';
    if (is_text && turns_direction(std::string_view(result).substr(i, 3)))
      result.replace(i, 3, "   ");
    if (!is_text && byte >= 0x80) result[i] = '?';
  }
  result.erase(result.find_last_not_of(' ') + 1);
  return result;
}

void dialogue_view::take(TAV_WIRETAP_EVENT event, std::string_view bytes) {
  switch (event) {
    case TAV_WIRETAP_CONNECTING:
      show("* ", "trying " + std::string(bytes));
      break;
    case TAV_WIRETAP_CONNECTED:
      show("* ", "connected to " + std::string(bytes));
      m_eMode = mode::commands;
      m_bUnderTls = false;
      m_bPop3 = false;
      m_cFromClient.clear();
      m_cFromServer.clear();
      m_uUnfinished = 0;
      m_cTlsFailure.clear();
      begin_exchange("");
      break;
    case TAV_WIRETAP_SENT:
      sent(bytes);
      break;
    case TAV_WIRETAP_RECEIVED:
      received(bytes);
      break;
    case TAV_WIRETAP_TLS_STARTED:
      m_bUnderTls = true;
      m_cTls = presentable(bytes);
      show("* ", "TLS: " + m_cTls);
      break;
    case TAV_WIRETAP_TLS_REFUSED:
      m_cTlsRefusal = presentable(bytes);
      show("* ", "certificate refused: " + m_cTlsRefusal);
      break;
    case TAV_WIRETAP_TLS_FAILED:
      m_cTlsFailure = presentable(bytes);
      show("* ", "TLS failed: " + m_cTlsFailure);
      break;
    case TAV_WIRETAP_TLS_CERTIFICATE:
      m_cCertificate = std::string(bytes);
      break;
    case TAV_WIRETAP_CLOSED:
      show("* ", "closed");
      break;
  }
}

void dialogue_view::show(const char* who, std::string_view text) {
  if (m_cSink) m_cSink(who + presentable(text));
}

void dialogue_view::begin_exchange(std::string verb) {
  if (m_cExchanges.size() >= kMostLines) m_cExchanges.erase(m_cExchanges.begin());
  m_cExchanges.push_back({std::move(verb), {}, m_bUnderTls, m_bPop3});
}

const exchange* dialogue_view::decisive() const {
  for (const exchange& entry : m_cExchanges) {
    if (entry.verb == kEndOfDataVerb) return &entry;
  }
  return m_cExchanges.empty() ? nullptr : &m_cExchanges.back();
}

void dialogue_view::sent(std::string_view bytes) {
  while (!bytes.empty()) {
    if (m_eMode == mode::data) {
      bytes.remove_prefix(take_data(bytes));
      continue;
    }
    const size_t feed = bytes.find('\n');
    const size_t count = std::min(feed, bytes.size() - 1) + 1;
    if (m_cFromClient.size() < kLongestLine) m_cFromClient.append(bytes.substr(0, count));
    bytes.remove_prefix(count);
    if (feed != std::string_view::npos) client_line(std::exchange(m_cFromClient, {}));
  }
}

// Counts mail data up to its end. Returns how many bytes were data or its end.
size_t dialogue_view::take_data(std::string_view bytes) {
  size_t taken = 0;
  while (taken < bytes.size() && m_uEndMatched < kEndOfData.size()) {
    if (m_uEndMatched == 0) {
      taken = std::min(bytes.find('\r', taken), bytes.size());
      if (taken == bytes.size()) break;
    }
    const char ch = bytes[taken++];
    m_uEndMatched = ch == kEndOfData[m_uEndMatched] ? m_uEndMatched + 1 : ch == '\r' ? 1 : 0;
  }
  m_uDataBytes += taken;
  if (m_uEndMatched == kEndOfData.size()) {
    show("C: ", "[" + std::to_string(m_uDataBytes - 3) + " bytes of mail]");
    show("C: ", kEndOfDataVerb);
    m_bEndSent = true;
    m_eMode = mode::commands;
    begin_exchange(kEndOfDataVerb);
  }
  return taken;
}

void dialogue_view::client_line(std::string_view line) {
  if (m_eMode == mode::login) {
    show("C: ", kMask);
    begin_exchange("AUTH");
    return;
  }
  const std::string text = presentable(line);
  std::string_view rest = text;
  const std::string verb = upper_case(take_word(rest));
  show("C: ", masked(text, verb));
  if (verb == "AUTH") m_eMode = mode::login;
  begin_exchange(verb);
}

void dialogue_view::received(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t count = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
    const std::string_view piece = bytes.substr(0, count);
    bytes.remove_prefix(count);
    if (m_eMode == mode::message) m_uMessageBytes += count;
    m_uUnfinished = piece.back() == '\n' ? 0 : m_uUnfinished + count;
    // Lines of a message are only looked at: no copy is made of those that come whole.
    if (m_cFromServer.empty() && piece.back() == '\n' && message_line(piece)) continue;
    if (m_cFromServer.size() < kLongestLine) m_cFromServer.append(piece);
    if (piece.back() == '\n') server_line(std::exchange(m_cFromServer, {}));
  }
}

// True for a line of a message. Its last line ends it.
bool dialogue_view::message_line(std::string_view line) {
  if (m_eMode != mode::message) return false;
  if (line != kEndOfMessage) return true;
  m_eMode = mode::commands;
  show("S: ", "[" + std::to_string(m_uMessageBytes - m_uDataBytes) + " bytes of mail]");
  show("S: ", ".");
  return true;
}

void dialogue_view::server_line(std::string_view line) {
  if (message_line(line)) return;
  std::string text = presentable(line);
  if (m_eMode == mode::login && !text.empty() && text[0] == '3') text = text.substr(0, 4) + kMask;
  show("S: ", text);
  if (m_cExchanges.empty()) begin_exchange("");
  exchange& current = m_cExchanges.back();
  if (current.verb.empty() && !text.empty() && (text[0] == '+' || text[0] == '-')) {
    m_bPop3 = true;
    current.is_pop3 = true;
  }
  if (current.reply.size() < kMostLines) current.reply.push_back(text);
  if (m_bPop3) {
    pop3_line(text);
  } else if (is_final(text)) {
    smtp_line(text);
  }
}

void dialogue_view::smtp_line(const std::string& text) {
  const std::string& verb = m_cExchanges.back().verb;
  const char first = text.empty() ? ' ' : text[0];
  if (m_eMode == mode::login && first != '3') m_eMode = mode::commands;
  if (verb == "DATA" && first == '3') {
    m_eMode = mode::data;
    m_uEndMatched = 2;  // a mail begins at the start of a line
    m_uDataBytes = 0;
  }
  if (verb == kEndOfDataVerb) m_bAccepted = first == '2';
}

void dialogue_view::pop3_line(const std::string& text) {
  const std::string& verb = m_cExchanges.back().verb;
  if (m_eMode == mode::list) {
    if (text == ".") m_eMode = mode::commands;
    return;
  }
  if (text.empty() || text[0] != '+') return;
  if (verb == "CAPA") m_eMode = mode::list;
  if (verb == "RETR" || verb == "TOP") {
    m_eMode = mode::message;
    m_uDataBytes = m_uMessageBytes;
  }
}

dialogue_tap::dialogue_tap(dialogue_view& view) {
  const auto observe = [](void* context, TAV_WIRETAP_EVENT event, const char* bytes,
                          size_t length) {
    static_cast<dialogue_view*>(context)->take(event, {bytes, length});
  };
  tav_wiretap_set(observe, &view);
}

dialogue_tap::~dialogue_tap() { tav_wiretap_set(nullptr, nullptr); }

}  // namespace tavmail
