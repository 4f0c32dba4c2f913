// dialogue_view.h - the dialogue with a mail server as a person may see it.

#ifndef DIALOGUE_VIEW_H
#define DIALOGUE_VIEW_H

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "exchange.h"
#include "secret_echo.h"
#include "tav_wiretap.h"

namespace tavmail {

// What a command speaks: one protocol, or POP3 for a login before each SMTP connection.
enum class dialogue_kind { smtp, pop3, pop3_before_smtp };

// What is known of one connection.
struct connection {
  bool is_pop3 = false;
  std::string tls;          // version and cipher
  std::string tls_refused;  // why the certificate was refused, TAV_TLS_REFUSED_...
  std::string tls_refusal;  // the same as a sentence
  std::string tls_failure;  // the text of TAV_WIRETAP_TLS_FAILED
  std::string certificate;  // the four lines of TAV_WIRETAP_TLS_CERTIFICATE
};

// Takes what moves over SMTP and POP3 connections and makes lines of it: "C: " from the client,
// "S: " from the server, "* " for events. Credentials and the challenges they answer are masked,
// also where a server repeats them; mail data is only counted, control characters are replaced.
//
// What the server says decides what the client's bytes are, so it is judged as the library does it.
// In doubt they are masked.
class dialogue_view {
 public:
  using line_sink = std::function<void(const std::string&)>;

  // `sink` gets each line; none when it is empty.
  explicit dialogue_view(line_sink sink, dialogue_kind kind = dialogue_kind::smtp)
      : m_sink(std::move(sink)), m_kind(kind), m_pop3(kind != dialogue_kind::smtp) {}

  void take(TAV_WIRETAP_EVENT event, std::string_view bytes);

  const std::deque<exchange>& exchanges() const { return m_exchanges; }
  const std::deque<connection>& connections() const { return m_connections; }
  // The exchange that a failure is about: the one that ended the mail, else the first that refused
  // the mail, else the latest. Null when nothing was said yet.
  const exchange* decisive() const;
  // The latest final reply that refused a login with SMTP; null for none.
  const exchange* refused_login() const;
  // True when a login with SMTP was begun.
  bool has_login() const { return m_hasLogin; }
  // True while it is, or would be, POP3 that is spoken.
  bool is_pop3() const;
  // Of the latest connection.
  const connection& latest() const;
  // What became of the mail: its end was sent; the server took it.
  bool end_was_sent() const { return m_endSent; }
  bool was_accepted() const { return m_accepted; }
  // Of the latest mail that was begun: its envelope, and how many bytes of it were sent.
  const std::string& sender() const { return m_sender; }
  const std::vector<std::string>& recipients() const { return m_recipients; }
  uint64_t mail_bytes() const;
  // Bytes of the messages that were received.
  uint64_t message_bytes() const { return m_messageBytes; }
  // The server has said more after the end of a message, before the next command.
  bool has_excess() const { return m_mode == mode::message && m_hasExcess; }
  // Bytes of the line of a message whose end has not been received.
  size_t unfinished_line() const { return m_mode == mode::message ? m_unfinished : 0; }

 private:
  // What the client's, respectively the server's, bytes are.
  enum class mode { commands, data, login, message };

  void begin_connecting();
  void begin_connection();
  void begin_tls(std::string_view description);
  connection& current_connection();
  void sent(std::string_view bytes);
  void received(std::string_view bytes);
  void client_byte(char ch);
  void client_line();
  size_t take_data(std::string_view bytes);
  size_t take_message(std::string_view bytes);
  bool is_end_of_message(std::string_view piece);
  void server_line(std::string_view line, bool is_cut);
  void cut_server_line();
  void take_verdict(const exchange& current);
  bool is_line_end(std::string_view piece) const;
  bool is_next_pop3() const;
  void show(const char* who, std::string_view text);
  void begin_exchange(std::string verb);

  line_sink m_sink;
  dialogue_kind m_kind;
  bool m_pop3;
  mode m_mode = mode::commands;
  std::string m_fromClient;  // an unfinished line, without what is secret in it
  std::string m_fromServer;
  secret_echo m_secrets;
  bool m_secret = false;        // the rest of the client's line is
  char m_latestByte = '\0';     // its latest byte
  size_t m_unfinished = 0;      // bytes of the server's unfinished line
  size_t m_endMatched = 0;      // bytes of the end of the mail seen so far
  bool m_messageEnded = false;  // nothing more is expected before the next command
  bool m_hasExcess = false;     // and it came
  std::string m_sender;
  std::vector<std::string> m_recipients;
  uint64_t m_dataBytes = 0;
  uint64_t m_messageBytes = 0;
  bool m_connecting = false;
  bool m_underTls = false;
  bool m_hasLogin = false;
  bool m_endSent = false;
  bool m_accepted = false;
  std::deque<connection> m_connections;
  std::deque<exchange> m_exchanges;
  exchange m_refusedLogin;
};

// Connects the view to the process's connections while it lives. At the end the log takes what it
// shows.
class dialogue_tap {
 public:
  explicit dialogue_tap(dialogue_view& view);
  ~dialogue_tap();
  dialogue_tap(const dialogue_tap&) = delete;
  dialogue_tap& operator=(const dialogue_tap&) = delete;

 private:
  const dialogue_view& m_view;
};

// Shows each line on standard error, if any is to be shown.
dialogue_view::line_sink lines_to_stderr(bool is_shown);

}  // namespace tavmail

#endif
