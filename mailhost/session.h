// session.h - the host's side of one connection, apart from any transport.
//
// A session is told what happens and queues what it wants done; it never blocks and knows no
// socket. The transport takes actions from the front, each when the one before is done. A session
// takes one command at a time: once its actions are done, received("") lets it go on with bytes
// that came too early. One that then queues nothing is silent.

#ifndef MAILHOST_SESSION_H
#define MAILHOST_SESSION_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "event.h"
#include "login.h"

namespace mailhost {

class mail_host;

struct action {
  enum kind_type { send, wait, start_tls, close, reset };
  kind_type kind;
  std::string bytes = {};             // of send
  std::chrono::milliseconds time{0};  // of wait; of send: a pause after each byte
};

// In what the two protocols differ where they do the same.
struct dialect {
  protocol speaks;
  const char* service;    // in DIGEST-MD5
  const char* positive;   // how a reply begins that grants something
  const char* challenge;  // how a challenge of AUTH begins
  const char* go_on;      // how a reply begins that wants more
  const char* granted;
  const char* refused;
  const char* not_offered;  // a method of AUTH
  const char* bad_answer;   // how the reply begins to one that is no base64
  const char* bad_line;     // how the reply begins to a line that is no command
};

class session {
 public:
  virtual ~session() = default;
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  // The connection stands; with `tls` the handshake is already done (implicit TLS). `cipher`, here
  // and below, is for whoever watches.
  void connected(bool tls, const std::string& cipher = "");
  // Bytes from the client in any slicing, or none: see above.
  void received(std::string_view bytes);
  // The handshake asked for by start_tls is done.
  void tls_started(const std::string& cipher = "");
  // The client is gone.
  void closed();

  // For tests without a transport: what is said in answer to the bytes. Pauses are left out, and
  // TLS begins where the host begins it.
  std::string talk(std::string_view bytes);

  // For whoever watches; the transport has something to tell as well.
  void note(const std::string& text) { tell(event::note, text); }

  std::deque<action> actions;

 protected:
  // What of a reply those who watch may see.
  enum class show { all, first_line };

  session(mail_host& host, const dialect& words, std::string address);

  virtual std::string greeting() = 0;
  // Without its CR LF.
  virtual void command(std::string_view line) = 0;
  // TLS has just begun: what was said in clear does not count any more.
  virtual void forget() = 0;
  virtual void logged_in(const std::string& user) = 0;
  // How many of the bytes were taken; 0: more are wanted. This one takes a line.
  virtual size_t take(std::string_view bytes);

  // Sends what the script has for `point`, or else `ordinary`, which is given without its last CR
  // LF. The result is the reply that counts: "" for none.
  std::string reply(const std::string& point, const std::string& ordinary, show what = show::all);
  // The same in two steps, for what has to be known before.
  deviation next(const std::string& point);
  std::string reply(const deviation& how, const std::string& ordinary, show what = show::all);
  bool is_positive(std::string_view reply) const;

  void start_tls();
  void hang_up(action::kind_type how = action::close);
  void heard(const std::string& text) { tell(event::client, text); }
  void tell(event::kind_type kind, const std::string& text, const std::string& detail = "",
            bool failed = false, const mail* message = nullptr);

  // AUTH with its arguments; the answers of the client that follow come by themselves. With a
  // `refusal` that is the reply, unless the script has another.
  void auth(const std::string& arguments, const std::string& refusal);

  mail_host& host() const { return m_host; }
  size_t connection() const { return m_number; }
  const std::string& address() const { return m_address; }
  bool tls() const { return m_tls; }
  // The methods of AUTH that are offered now.
  std::vector<std::string> methods() const;

 private:
  void go_on();
  void take_line(std::string_view line);
  void auth_answer(const std::string& line);
  void auth_step(const std::string& point, const std::string& response, bool has_response);
  void auth_reply(const std::string& point, const std::string& ordinary);
  void show_reply(std::string_view bytes, show what);
  void show_lines(std::string_view bytes);

  mail_host& m_host;
  const dialect& m_words;
  std::string m_address;
  size_t m_number;
  bool m_tls = false;
  bool m_awaitsTls = false;
  bool m_hungUp = false;
  bool m_awaitsAnswer = false;  // to a challenge of AUTH
  std::string m_method;         // of AUTH
  std::unique_ptr<sasl_login> m_login;
  std::string m_pending;  // received, not yet taken
};

}  // namespace mailhost

#endif
