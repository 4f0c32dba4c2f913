#include "port_probe.h"

#include <algorithm>

#include "greeting.h"
#include "tav_wiretap.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// A server that has said nothing by then may wait for the client to speak first. In milliseconds.
constexpr long kProbePatience = 2000;
constexpr size_t kMostProbed = 4096;

// Why a handshake failed, while it lives.
class failure_watch {
 public:
  failure_watch() {
    const auto observe = [](void* context, TAV_WIRETAP_EVENT event, const char* bytes,
                            size_t length) {
      if (event != TAV_WIRETAP_TLS_FAILED) return;
      static_cast<failure_watch*>(context)->m_failure.assign(bytes, length);
    };
    tav_wiretap_set(observe, this);
  }
  failure_watch(const failure_watch&) = delete;
  failure_watch& operator=(const failure_watch&) = delete;
  ~failure_watch() { tav_wiretap_set(nullptr, nullptr); }

  const std::string& failure() const { return m_failure; }

 private:
  std::string m_failure;
};

long patience(const endpoint_options& options) {
  return std::min(kProbePatience, static_cast<long>(options.timeout) * 1000);
}

bool has_line(const std::string& text) { return text.find('\n') != std::string::npos; }

// A line that has begun like a reply and may go on as one.
bool is_half_reply(const std::string& text) {
  return !has_line(text) && text.find_first_not_of("0123456789+-OKER") == std::string::npos;
}

// A whole list of POP3, or a line that refuses it.
bool is_list(const std::string& text) {
  return text.find("\n.\r\n") != std::string::npos || (text[0] == '-' && has_line(text));
}

// What the port says in clear text.
std::string clear_greeting(const std::string& address, const endpoint_options& options) {
  return port_probe(address, options.port, kProbePatience).read(has_line, patience(options));
}

void look_for_tls(port_probe& first, const std::string& address, const endpoint_options& options,
                  port_look& look) {
  const port_probe::handshake tried = first.start_tls(patience(options));
  look.is_tls = tried == port_probe::handshake::done || tried == port_probe::handshake::refused;
  if (tried == port_probe::handshake::done) {
    look.greeting = first.read(has_line, patience(options));
  } else if (!look.is_tls && !first.is_over()) {
    look.greeting = clear_greeting(address, options);
  }
}

void look_for_text(port_probe& first, const std::string& address, const endpoint_options& options,
                   port_look& look) {
  look.greeting = first.read(has_line, patience(options));
  if (!look.greeting.empty() || first.is_over()) return;
  port_probe other(address, options.port, patience(options));
  if (other.result() != TAV_EML_OK) return;
  const port_probe::handshake tried = other.start_tls(patience(options));
  look.is_tls = tried == port_probe::handshake::done || tried == port_probe::handshake::refused;
  if (look.is_tls) return;
  // A web server speaks when it is spoken to.
  first.send("QUIT\r\n\r\n");
  look.greeting = first.read(has_line, patience(options) / 2);
}

}  // namespace

port_probe::port_probe(const std::string& host, int port, long timeout) {
  const auto start = std::chrono::steady_clock::now();
  m_result = m_net.connect_mail(&m_sock, host.c_str(), static_cast<uint16_t>(port), timeout, 0);
  m_waited = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
}

port_probe::~port_probe() {
  m_net.end_tls(m_tls);
  if (m_sock > 0) m_net.close_socket(m_sock);
}

port_probe::handshake port_probe::start_tls(long timeout) {
  const failure_watch watch;
  if (m_net.start_tls(m_sock, static_cast<unsigned int>(timeout), m_tls) == TAV_EML_OK) {
    return handshake::done;
  }
  m_over = watch.failure() == TAV_TLS_FAILED_CUT;
  if (watch.failure() == TAV_TLS_FAILED_TIMEOUT) return handshake::silence;
  const bool is_other = m_over || watch.failure().empty() ||
                        watch.failure() == TAV_TLS_FAILED_CLEAR ||
                        watch.failure() == TAV_TLS_FAILED_NOT_TLS;
  return is_other ? handshake::no_tls : handshake::refused;
}

std::string port_probe::read(const std::function<bool(const std::string&)>& is_enough,
                             long timeout) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
  std::string text;
  while (m_result == TAV_EML_OK && text.size() < kMostProbed && !is_enough(text)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    char bytes[512];
    long length = sizeof bytes;
    const TAV_EML_RESULT result =
        m_net.recv_data(m_sock, bytes, length, 0, static_cast<long>(left.count()), m_tls);
    if (result == TAV_EML_ERR_TRANSFER_TIMEOUT) break;
    m_over = result != TAV_EML_OK || length < 1;
    if (m_over) break;
    text.append(bytes, static_cast<size_t>(length));
  }
  return text;
}

void port_probe::send(const std::string& text) {
  long length = static_cast<long>(text.size());
  m_net.send_data(m_sock, text.data(), length, 0, kProbePatience, m_tls);
}

port_look look_at(port_probe& first, const std::string& address, const endpoint_options& options,
                  bool is_pop3) {
  port_look look;
  if (options.tls == tls_mode::implicit) {
    look_for_tls(first, address, options, look);
  } else {
    look_for_text(first, address, options, look);
  }
  if (is_half_reply(look.greeting)) look.greeting.clear();
  // After STLS the library asks itself.
  const bool is_as_wanted = look.is_tls == (options.tls == tls_mode::implicit);
  if (is_pop3 && is_as_wanted && options.tls != tls_mode::starttls &&
      look.greeting.rfind("+OK", 0) == 0) {
    first.send("CAPA\r\n");
    look.offer = first.read(is_list, patience(options));
  }
  if (!look.greeting.empty() && is_as_wanted) first.send("QUIT\r\n");
  return look;
}

}  // namespace tavmail
