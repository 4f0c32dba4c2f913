#include "scripted_host.h"

#include <algorithm>

namespace tav_test {
namespace {

// A line that never ends must not eat the memory of a host that runs for a demonstration.
constexpr size_t max_line = size_t{64} << 20;

std::string printable(std::string_view text) {
  std::string clean(text);
  for (char& c : clean) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7f) c = '.';
  }
  return clean;
}

std::string_view without_line_end(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

}  // namespace

void scripted_host::reply_to(const std::string& verb, size_t nth, const std::string& bytes) {
  m_script[{verb, nth}] = {bytes, false};
}

void scripted_host::silence_at(const std::string& verb, size_t nth) {
  m_script[{verb, nth}] = {"", false};
}

void scripted_host::close_at(const std::string& verb, size_t nth, const std::string& last_words) {
  m_script[{verb, nth}] = {last_words, true};
}

size_t scripted_host::occurrences(const std::string& verb) const {
  const auto found = m_occurrences.find(verb);
  return found == m_occurrences.end() ? 0 : found->second;
}

std::optional<scripted_host::scripted_reply> scripted_host::take_reply(const std::string& verb) {
  const size_t nth = ++m_occurrences[verb];
  auto found = m_script.find({verb, nth});
  if (found == m_script.end()) found = m_script.find({verb, every});
  if (found == m_script.end()) return std::nullopt;
  return found->second;
}

void scripted_host::write(size_t connection, const std::string& line) {
  if (!m_sink) return;
  if (connection != m_lastWriter) m_sink("-- connection " + std::to_string(connection));
  m_lastWriter = connection;
  m_sink(line);
}

const scripted_host::connection_record& scripted_host::connection(size_t nth) const {
  static const connection_record none;
  return nth > 0 && nth <= m_connections.size() ? m_connections[nth - 1] : none;
}

std::string upper_case(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return result;
}

scripted_session::scripted_session(scripted_host& host) : m_host(host) {
  m_host.m_connections.emplace_back();
  m_number = m_host.m_connections.size();
}

void scripted_session::connected(bool tls) {
  m_tls = tls;
  if (tls) m_host.write(m_number, "-- TLS");
  reply(scripted_host::greeting, greeting_text());
}

void scripted_session::received(std::string_view bytes) {
  if (m_hungUp) return;
  if (!m_host.m_sink) {
    auto& record = m_host.m_connections[m_number - 1];
    (m_tls ? record.under_tls : record.in_clear).append(bytes);
  }
  m_pending.append(bytes);
  deliver_lines();
  if (m_pending.size() > max_line) hang_up();
}

void scripted_session::tls_started() {
  m_tls = true;
  m_awaitsTls = false;
  m_host.write(m_number, "-- TLS");
  forget();
}

void scripted_session::closed() {
  if (!m_pending.empty())
    heard("[" + std::to_string(m_pending.size()) + " bytes without line end]");
  m_pending.clear();
  m_host.m_connections[m_number - 1].closed_by_client = true;
  m_host.write(m_number, "-- closed");
}

std::string scripted_session::reply(const std::string& verb, const std::string& ordinary) {
  const auto scripted = m_host.take_reply(verb);
  const std::string bytes = scripted ? scripted->bytes : ordinary;
  if (m_hungUp) return "";
  say(bytes);
  if (scripted && scripted->close) hang_up();
  return bytes;
}

void scripted_session::start_tls() {
  if (m_hungUp) return;
  m_awaitsTls = true;
  actions.push_back({peer_action::start_tls});
}

void scripted_session::hang_up() {
  if (m_hungUp) return;
  m_hungUp = true;
  actions.push_back({peer_action::close});
}

void scripted_session::heard(std::string_view text) {
  m_host.write(m_number, "C: " + printable(text));
}

void scripted_session::deliver_lines() {
  size_t begin = 0;
  while (!m_hungUp && !m_awaitsTls) {
    const size_t end = m_pending.find('\n', std::max(begin, m_searched));
    if (end == std::string::npos) break;
    line(std::string_view(m_pending).substr(begin, end + 1 - begin));
    begin = end + 1;
  }
  // What a client sent in clear behind STARTTLS must not be taken for something said under TLS.
  m_pending.erase(0, m_awaitsTls ? std::string::npos : begin);
  m_searched = m_pending.size();
}

void scripted_session::say(const std::string& bytes) {
  if (bytes.empty()) return;
  for (size_t begin = 0; begin < bytes.size();) {
    const size_t end = std::min(bytes.find('\n', begin), bytes.size() - 1) + 1;
    const auto line = std::string_view(bytes).substr(begin, end - begin);
    m_host.write(m_number, "S: " + printable(without_line_end(line)));
    begin = end;
  }
  actions.push_back({peer_action::send, bytes});
}

}  // namespace tav_test
