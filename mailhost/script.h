// script.h - how the host departs from the ordinary dialogue, in a few plain words.
//
//   EHLO 1 "502 no"              RCPT 2 "450 greylisted"        DATA silence
//   greeting close               RETR 1 cut 1000                STARTTLS inject "250 x"
//   every drip 100ms             smtp QUIT "221 bye" reset      . delay 5s "451 later"
//
// One deviation a line, when and what:
//
//   line    = [ when 1*action ] [ "#" comment ]
//   when    = [ "smtp" | "pop3" ] point [ count ]
//   point   = command     a command in capital letters: EHLO, RETR, ...
//           | "."         the end of a message's text
//           | "greeting"  a new connection
//           | "answer"    a line with which the client answers a challenge of AUTH
//           | "other"     a line that is no command which the host knows
//           | "every"     each of them
//   count   = N           the Nth time only; without a count every time
//           | N "+"       the Nth time and from there on
//           | N "-" N     from the one to the other
//   action  = 1*string           these lines are the reply
//           | "bytes" 1*string   these bytes are the reply, without line ends of our own
//           | "silence"          no reply; the connection stays open
//           | "close"            closes the connection, after the reply if one is given
//           | "reset"            the same with a reset (RST)
//           | "cut" N            the first N bytes of the reply, then closes
//           | "inject" 1*string  these lines right after the reply, in the same packet; after
//                                STARTTLS and STLS in clear
//           | "flood" N          the reply N times
//           | "delay" time       waits before the reply
//           | "drip" time        sends the reply byte by byte, with so long a pause after each
//   string  = DQUOTE *( character | escape ) DQUOTE [ "*" N ]   N times one after the other
//   escape  = "\" ( "r" | "n" | "t" | "0" | "x" 2HEXDIG | "\" | DQUOTE )
//   time    = N ( "ms" | "s" )
//
// A string is a line: CR LF follows it unless it ends in a LF itself. Times are counted over all
// connections, for each protocol by itself, and from 1. Several actions may stand on a line.
//
// Where several lines fit, one with a count goes before one without, and both before "every"; of
// equal ones the last counts. "delay" and "drip" are chosen apart from the others, so "every drip
// 100ms" goes together with another reply.
//
// What a command does follows the reply that was sent: it has its effect when the reply is
// positive, and none otherwise.

#ifndef MAILHOST_SCRIPT_H
#define MAILHOST_SCRIPT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace mailhost {

enum class protocol { smtp, pop3 };

// What happens instead of the ordinary reply, or to it.
struct deviation {
  enum class ending { none, silence, close, reset };

  std::optional<std::string> reply;  // exact bytes
  ending end = ending::none;
  std::optional<size_t> cut;
  std::string injected;
  size_t flood = 1;
  std::chrono::milliseconds delay{0}, drip{0};
  std::string source;  // the script's own words; "" when nothing deviates

  // The reply that counts, "" for none.
  const std::string& outcome(const std::string& ordinary) const {
    static const std::string none;
    return reply ? *reply : end == ending::none ? ordinary : none;
  }
  bool changes_pace() const { return delay.count() != 0 || drip.count() != 0; }
  bool changes_reply() const {
    return reply || end != ending::none || cut || !injected.empty() || flood != 1;
  }
};

// One line of a script.
struct script_rule {
  std::optional<protocol> speaks;
  std::string point;
  bool is_counted = false;
  size_t first = 1, last = SIZE_MAX;
  deviation what;
};

class script_error : public std::runtime_error {
 public:
  script_error(size_t line, const std::string& what)
      : std::runtime_error("line " + std::to_string(line) + ": " + what) {}
};

class script {
 public:
  script() = default;
  explicit script(std::string_view text) { add(text); }

  // Further lines. Throws script_error, and then takes none of them.
  void add(std::string_view text);
  void clear() { m_rules.clear(); }

  // What is to be done at the nth time that `point` is reached, which is the nth reply of all.
  deviation at(protocol speaks, const std::string& point, size_t nth, size_t nth_of_all) const;

 private:
  std::vector<script_rule> m_rules;
};

}  // namespace mailhost

#endif
