// mail_host.h - a practice mail server without sockets, clock and chance: SMTP (RFC 5321) and POP3
// (RFC 1939), with STARTTLS, STLS and logins, which departs from the ordinary where its script says
// so.
//
//   mail_host host;
//   host.script.add("RCPT 2 \"450 later\"\n");
//   auto session = host.connect(protocol::smtp);
//   session->connected(false);
//   session->received("EHLO me\r\n");
//   for (; !session->actions.empty(); session->actions.pop_front()) ...   // what is to be done
//
// It is strict, because it is there to find faults: lines end in CR LF, commands keep their order,
// a message ends with CR LF dot CR LF and nothing else.
//
// Counts are from 1 and over all connections. One thread at a time.

#ifndef MAILHOST_MAIL_HOST_H
#define MAILHOST_MAIL_HOST_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "event.h"
#include "login.h"
#include "mail_store.h"
#include "script.h"
#include "session.h"

namespace mailhost {

struct settings {
  std::string name = "localhost";  // in greetings and challenges
  bool offers_tls = false;         // STARTTLS and STLS
  user_map users;
  std::vector<std::string> methods = sasl_login::methods();  // of AUTH; none: no AUTH
  user_map tokens;  // name to access token; with any, AUTH under TLS takes tokens
  bool offers_apop = true;
  bool login_required = false;              // before MAIL
  bool pop_before_smtp = false;             // a POP3 login from the same address counts as one
  size_t size_limit = size_t{64} << 20;     // of a message, in bytes
  size_t memory_limit = size_t{256} << 20;  // of all messages that are just coming in
  bool keeps_records = true;                // what clients said; a host that runs long does without

  // The surroundings: seconds that only grow, and words that nobody can guess. The defaults give
  // the same on every run.
  std::function<int64_t()> seconds = [] { return int64_t{0}; };
  std::function<std::string()> nonce;
};

class mail_host {
 public:
  // The store outlives the host; without one mails are kept in `memory`.
  explicit mail_host(settings given = {}, mail_store* store = nullptr);
  mail_host(const mail_host&) = delete;
  mail_host& operator=(const mail_host&) = delete;

  // A connection from this address. The host outlives it.
  std::unique_ptr<session> connect(protocol speaks, const std::string& address = "127.0.0.1");

  mailhost::script script;  // more may be added while the host runs
  memory_store memory;
  std::function<void(const event&)> on_event;

  // How often a point of the script was reached.
  size_t occurrences(protocol speaks, const std::string& point) const;

  // Exact bytes of the client, apart for clear text and TLS.
  struct record {
    std::string in_clear, under_tls;
    bool closed_by_client = false;
  };
  size_t connections() const { return m_count; }
  const record& connection(size_t nth = 1) const;

  // For the sessions.
  const settings& given() const { return m_given; }
  mail_store& store() { return *m_store; }
  deviation next(protocol speaks, const std::string& point);
  record* record_of(size_t connection);
  std::string nonce();
  void pop_login(const std::string& address) { m_popLogins[address] = m_given.seconds(); }
  bool had_pop_login(const std::string& address) const;
  // Bytes of messages that are just coming in. False: there is no room for more.
  bool take_room(size_t bytes);
  void give_room(size_t bytes) { m_room += bytes; }

 private:
  using spot = std::pair<protocol, std::string>;

  settings m_given;
  mail_store* m_store;
  size_t m_room;
  size_t m_count = 0;
  size_t m_nonces = 0;
  std::vector<record> m_records;
  std::map<spot, size_t> m_occurrences;
  std::map<std::string, int64_t> m_popLogins;  // by address
};

}  // namespace mailhost

#endif
