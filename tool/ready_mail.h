// ready_mail.h - a mail that is ready, on its way to a transaction.

#ifndef READY_MAIL_H
#define READY_MAIL_H

#include <functional>
#include <string>
#include <string_view>

#include "header_block.h"
#include "raw_transaction.h"

namespace tavmail {

// Takes a mail in pieces of any length and passes it on in whole lines. A line ends in CR LF, LF or
// CR. Memory does not grow with the mail. All throw a problem: among them for a line or a header
// that is longer than the bounds.
class ready_mail {
 public:
  static constexpr size_t kLongestLine = size_t{64} << 10;
  static constexpr size_t kLongestHeader = size_t{1} << 20;

  // Called once with the header, which goes out as this leaves it; connects the transaction.
  using begin = std::function<void(header_block& header)>;

  ready_mail(begin on_header, raw_transaction& out)
      : m_onHeader(std::move(on_header)), m_out(out) {}

  void add(std::string_view bytes);
  void end();

 private:
  void append(std::string_view bytes);
  void append_line_end();
  void grow_line(size_t bytes);
  void take_header(bool is_all);
  void send_lines();

  const begin m_onHeader;
  raw_transaction& m_out;
  header_block m_header;
  std::string m_text;  // lines that end in a line feed, and the beginning of one
  size_t m_line = 0;   // bytes of that one
  size_t m_headerBytes = 0;
  bool m_hasReturn = false;  // a CR was last: a LF may belong to it
  bool m_inHeader = true;
};

}  // namespace tavmail

#endif
