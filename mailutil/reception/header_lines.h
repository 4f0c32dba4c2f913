// header_lines.h - a header, decoded and unfolded, line by line.

#ifndef HEADER_LINES_H
#define HEADER_LINES_H

#include <string>
#include <string_view>

#include "quorvelmida/tav_eml_mlutl_mail_type.h"

namespace quorvelmida {

// The lines of a header, unfolded (RFC 5322 2.2.3). Each keeps its CR LF and is followed by a NUL;
// there are no other NULs.
class header_lines {
 public:
  // From a decoded header.
  explicit header_lines(std::string_view header);

  // From a header as received. Encoded words are decoded only in values and within one line, so
  // that none can forge or swallow a header line. `char_set` becomes that of the last word. CR, LF
  // and NUL from a word become blanks. Throws std::bad_alloc.
  header_lines(std::string_view received, TAV_EML_CHAR_SET& char_set);

  // The next line, which begins at `at`. False after the last one.
  bool next(size_t& at, std::string_view& line) const;

 private:
  std::string_view begin(std::string_view line);

  std::string m_cText;
  bool m_bIsEnded = false;  // whether the last line received has its CR LF
};

// The lines of one field of a header as received: unfolded, without line ends, not decoded. The
// last field of the name counts. False when there is none.
bool find_received_field(std::string_view received, std::string_view name, std::string& value);

// The next line of a header, with its line feed, cut off the front. Empty at the end.
std::string_view cut_line(std::string_view& header);

}  // namespace quorvelmida

#endif
