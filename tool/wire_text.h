// wire_text.h - a mail as POP3 transfers it, and as it was (RFC 1939 3).

#ifndef WIRE_TEXT_H
#define WIRE_TEXT_H

#include <functional>
#include <string>
#include <string_view>

namespace tavmail {

// Takes the lines of a reply as they are received, in pieces of any size, and finds its end. The
// dot that the transfer has put before a line is removed. Lines may have any length.
class wire_text {
 public:
  enum class line_end { cr_lf, lf };  // CR LF as it came, or LF in its place
  // Gets the text in pieces. No piece is more than one line.
  using sink = std::function<void(std::string_view)>;

  wire_text(line_end end, sink out) : m_end(end), m_sink(std::move(out)) {}

  // What follows the end is dropped: nothing more was asked for.
  void take(std::string_view received);
  bool has_ended() const { return m_ended; }

 private:
  void take_beginning(char ch);
  void put(std::string_view piece);

  const line_end m_end;
  const sink m_sink;
  std::string m_begun = {};  // the first bytes of a line that may be the end: "", "." or ".\r"
  bool m_beginsLine = true;
  bool m_holdsCr = false;
  bool m_ended = false;
};

// Quotes what a reader of an mbox would take for the beginning of a mail (mboxrd): a line that
// begins with "From " after any number of ">" gets one ">" more.
class from_quote {
 public:
  explicit from_quote(wire_text::sink out) : m_sink(std::move(out)) {}

  void take(std::string_view text);
  void finish();  // passes on what was held back

 private:
  void decide(bool is_from);

  const wire_text::sink m_sink;
  bool m_beginsLine = true;
  size_t m_quotes = 0;   // ">" at the beginning of the line
  size_t m_matched = 0;  // bytes of "From " after them
};

// Puts "Old-" before the fields of a header that readers of an mbox take for their own notes: a
// length that is not true would hide the mail that follows, and a status would say that this one
// was read. Lines end in LF.
class mbox_header {
 public:
  explicit mbox_header(wire_text::sink out) : m_sink(std::move(out)) {}

  void take(std::string_view text);

 private:
  void take_beginning(char ch);

  const wire_text::sink m_sink;
  std::string m_begun = {};  // of a line, as far as it may be the name of such a field
  bool m_beginsLine = true;
  bool m_ended = false;
};

}  // namespace tavmail

#endif
