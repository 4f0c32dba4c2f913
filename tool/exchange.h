// exchange.h - one command and the reply to it, judged as the library judges it.

#ifndef EXCHANGE_H
#define EXCHANGE_H

#include <string>
#include <string_view>
#include <vector>

namespace tavmail {

enum class verdict {
  none,       // no reply
  success,    // "2", or a POP3 line with "+OK"
  goes_on,    // "3", or after AUTH a POP3 line that begins with "+" and not with "+OK"
  temporary,  // "4"
  refused,    // "5", or a POP3 line that begins with "-"
  nonsense,   // no reply of the protocol; the library takes it for a refusal
};

// The greeting answers the command "".
struct exchange {
  std::string verb;     // in upper case
  std::string address;  // of MAIL and RCPT
  std::string method;   // of AUTH, in upper case
  // Of AUTH: what the server asked last, decoded, as a person may see it. After a token it is what
  // is wrong with that, in JSON.
  std::string challenge;
  bool has_secret = false;  // of AUTH: the client has sent one, or answered with one
  bool under_tls = false;
  bool is_pop3 = false;
  std::vector<std::string> reply;  // its lines, as a person may see them
  size_t lines = 0;                // all of them, also those that are not kept
  verdict judged = verdict::none;
  bool is_complete = false;    // its last line has come
  std::string code;            // of three digits, when all lines have the same, else ""
  bool has_lone_feed = false;  // a line went on after a line feed without carriage return

  // Judges by the first line, but for EHLO, where each line counts. `line` is as it came, without
  // its end.
  void judge(std::string_view line);
  // The same for a line whose end did not come: it can refuse, and nothing else.
  void judge_cut_line(std::string_view line);

  bool is_success() const { return is_complete && judged == verdict::success; }
  // The server said no. A reply of which more was to come is one, too: what follows changes
  // nothing.
  bool is_no() const { return judged == verdict::temporary || judged == verdict::refused; }
};

// A reply as one line, "" when there was none.
std::string reply_text(const exchange* entry);

// True when the text has the words, in whatever case.
bool says(std::string_view text, std::string_view words);

// How many bytes the character at the begin of a UTF-8 text has if it steers a terminal or turns
// the direction of the text; 0 for another one.
size_t steering_bytes(std::string_view text);

// Without such characters, and not longer than a person wants to read.
std::string presentable(std::string_view text);

}  // namespace tavmail

#endif
