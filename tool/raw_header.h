// raw_header.h - the header of the mail that is being read, as it was received.

#ifndef RAW_HEADER_H
#define RAW_HEADER_H

#include <optional>
#include <string>
#include <string_view>

#include "dialogue_view.h"

namespace tavmail {

// Takes what is received after RETR or TOP and keeps the header.
class raw_header {
 public:
  // The status line comes next.
  void begin();
  void take(std::string_view received);

  // The value of the last line of that name (in lower case), unfolded and without blanks at its
  // ends. The library takes the last one too.
  std::optional<std::string> value(std::string_view name) const;

 private:
  enum class state { elsewhere, status, header };

  void take_line(std::string_view line);

  state m_state = state::elsewhere;
  std::string m_line;  // one that has not ended
  std::string m_text;
};

// Shows the view what moves over the process's connections while it lives, and the header what is
// received.
class receive_tap {
 public:
  receive_tap(dialogue_view& view, raw_header& header);
  ~receive_tap();
  receive_tap(const receive_tap&) = delete;
  receive_tap& operator=(const receive_tap&) = delete;

 private:
  dialogue_view& m_view;
  raw_header& m_header;
};

}  // namespace tavmail

#endif
