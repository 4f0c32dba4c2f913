// dialogue_view.h - the dialogue with a mail server as a person may see it.

#ifndef DIALOGUE_VIEW_H
#define DIALOGUE_VIEW_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tav_wiretap.h"

namespace tavmail {

// One command and the reply to it. The greeting answers the command "".
struct exchange {
  std::string verb;                // in upper case
  std::vector<std::string> reply;  // its lines
  bool under_tls = false;
  bool is_pop3 = false;
};

// Takes what moves over SMTP and POP3 connections and makes lines of it: "C: " from the client,
// "S: " from the server, "* " for events. Credentials and the challenges they answer are masked,
// mail data is only counted, control characters are replaced.
class dialogue_view {
 public:
  using line_sink = std::function<void(const std::string&)>;

  // `sink` gets each line; none when it is empty.
  explicit dialogue_view(line_sink sink) : m_cSink(std::move(sink)) {}

  void take(TAV_WIRETAP_EVENT event, std::string_view bytes);

  const std::vector<exchange>& exchanges() const { return m_cExchanges; }
  // The exchange that a failure is about: the one that ended the mail, else the latest. Null when
  // nothing was said yet.
  const exchange* decisive() const;
  const std::string& tls() const { return m_cTls; }
  const std::string& tls_refusal() const { return m_cTlsRefusal; }
  // The text of TAV_WIRETAP_TLS_FAILED of this connection, "" when no handshake failed.
  const std::string& tls_failure() const { return m_cTlsFailure; }
  // The four lines of TAV_WIRETAP_TLS_CERTIFICATE, "" when no certificate was seen.
  const std::string& certificate() const { return m_cCertificate; }
  // What became of the mail: its end was sent; the server took it.
  bool end_was_sent() const { return m_bEndSent; }
  bool was_accepted() const { return m_bAccepted; }
  // Bytes of the messages that were received.
  uint64_t message_bytes() const { return m_uMessageBytes; }
  // Bytes of the line of a message whose end has not been received.
  size_t unfinished_line() const { return m_eMode == mode::message ? m_uUnfinished : 0; }

 private:
  // What the client's, respectively the server's, lines are.
  enum class mode { commands, data, login, list, message };

  void sent(std::string_view bytes);
  void received(std::string_view bytes);
  void client_line(std::string_view line);
  void server_line(std::string_view line);
  size_t take_data(std::string_view bytes);
  void smtp_line(const std::string& text);
  void pop3_line(const std::string& text);
  bool message_line(std::string_view line);
  void show(const char* who, std::string_view text);
  void begin_exchange(std::string verb);

  line_sink m_cSink;
  mode m_eMode = mode::commands;
  std::string m_cFromClient;  // an unfinished line
  std::string m_cFromServer;
  size_t m_uUnfinished = 0;  // bytes of the server's unfinished line
  size_t m_uEndMatched = 0;  // bytes of the end of the mail seen so far
  uint64_t m_uDataBytes = 0;
  uint64_t m_uMessageBytes = 0;
  bool m_bPop3 = false;
  bool m_bUnderTls = false;
  bool m_bEndSent = false;
  bool m_bAccepted = false;
  std::string m_cTls;
  std::string m_cTlsRefusal;
  std::string m_cTlsFailure;
  std::string m_cCertificate;
  std::vector<exchange> m_cExchanges;
};

// A reply as one line, "" when there was none.
std::string reply_text(const exchange* entry);

// Without control characters, and not longer than a person wants to read.
std::string presentable(std::string_view text);

// Connects the view to the process's connections while it lives.
class dialogue_tap {
 public:
  explicit dialogue_tap(dialogue_view& view);
  ~dialogue_tap();
  dialogue_tap(const dialogue_tap&) = delete;
  dialogue_tap& operator=(const dialogue_tap&) = delete;
};

}  // namespace tavmail

#endif
