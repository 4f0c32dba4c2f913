// scripted_host.h - what the mail hosts of the tests share: deviations from the ordinary dialogue,
// and records of what was said.
//
// All counts are from 1: the first connection, the first occurrence of a command. Records are to be
// read when nobody talks to the host: after the client's call on the fake platform, after stop() on
// a loopback server.

#ifndef TESTS_SUPPORT_SCRIPTED_HOST_H
#define TESTS_SUPPORT_SCRIPTED_HOST_H

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mail_peer.h"

namespace tav_test {

class scripted_host : public mail_host {
 public:
  static constexpr const char* greeting = "(greeting)";
  static constexpr size_t every = 0;

  // Deviations, each for the nth occurrence of `verb` over all connections, or for `every` one.
  // `verb` is a command in upper case, `greeting`, or a further point that the host names. The
  // bytes are sent as they are, so a reply may be malformed, of several lines or cut off.
  //
  // What a command does follows the reply that was sent: it has its effect when the reply is
  // positive, and none otherwise.
  void reply_to(const std::string& verb, size_t nth, const std::string& bytes);
  void silence_at(const std::string& verb, size_t nth);
  void close_at(const std::string& verb, size_t nth, const std::string& last_words = "");

  size_t connections() const { return m_connections.size(); }
  size_t occurrences(const std::string& verb) const;

  // Exact bytes of a connection, "" when there was none.
  std::string client_bytes_in_clear(size_t nth = 1) const { return connection(nth).in_clear; }
  std::string client_bytes_under_tls(size_t nth = 1) const { return connection(nth).under_tls; }
  std::string client_bytes(size_t nth = 1) const {
    return client_bytes_in_clear(nth) + client_bytes_under_tls(nth);
  }
  // False until the client has closed the connection.
  bool closed_by_client(size_t nth = 1) const { return connection(nth).closed_by_client; }

  // For a host that runs long: bytes are not kept, and the dialogue goes to `sink` as lines "C:
  // ..." and "S: ...", without credentials, message texts and control characters. Lines "--
  // connection 2" tell whose turn it is.
  void stream_transcript(std::function<void(const std::string&)> sink) { m_sink = std::move(sink); }

 private:
  friend class scripted_session;

  struct scripted_reply {
    std::string bytes;
    bool close;
  };
  struct connection_record {
    std::string in_clear, under_tls;
    bool closed_by_client = false;
  };
  using point = std::pair<std::string, size_t>;  // verb and occurrence

  std::optional<scripted_reply> take_reply(const std::string& verb);
  void write(size_t connection, const std::string& line);
  const connection_record& connection(size_t nth) const;

  std::map<point, scripted_reply> m_script;
  std::map<std::string, size_t> m_occurrences;
  std::vector<connection_record> m_connections;
  size_t m_lastWriter = 0;
  std::function<void(const std::string&)> m_sink;
};

std::string upper_case(std::string_view text);

// One connection of a scripted host: takes bytes in any slicing, hands on lines.
class scripted_session : public mail_peer {
 public:
  explicit scripted_session(scripted_host& host);

  void connected(bool tls) final;
  void received(std::string_view bytes) final;
  void tls_started() final;
  void closed() final;

 protected:
  virtual std::string greeting_text() = 0;
  // One line with its line end, which is LF with or without CR before it.
  virtual void line(std::string_view text) = 0;
  // TLS has just begun: what was said in clear does not count any more.
  virtual void forget() = 0;

  size_t number() const { return m_number; }
  bool tls() const { return m_tls; }

  // Sends what the script has for this occurrence of `verb`, or else `ordinary`. The result is what
  // was sent, "" for silence.
  std::string reply(const std::string& verb, const std::string& ordinary);
  void start_tls();
  void hang_up();
  // Writes what the client said into the transcript; control characters become dots.
  void heard(std::string_view text);

 private:
  void deliver_lines();
  void say(const std::string& bytes);

  scripted_host& m_host;
  size_t m_number;
  bool m_tls = false;
  bool m_awaitsTls = false;
  bool m_hungUp = false;
  std::string m_pending;  // received, not yet a whole line
  size_t m_searched = 0;  // bytes of m_pending known to hold no LF
};

}  // namespace tav_test

#endif
