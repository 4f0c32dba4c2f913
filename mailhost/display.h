// display.h - shows what happens: to a person, line by line and in colour on a terminal, or to a
// script, as one JSON object a line.

#ifndef MAILHOST_DISPLAY_H
#define MAILHOST_DISPLAY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "event.h"

namespace mailhost {

// What a client has to know to come in.
struct entrance {
  std::string address;
  std::vector<std::pair<std::string, uint16_t>> ports;  // "smtp", 2525
  std::vector<std::string> users;                       // names
  std::string folder;                                   // where mails are kept
  bool is_private = false;                              // which goes at the end
};

class display {
 public:
  explicit display(bool as_json);

  // Never waits long: when nobody reads the output, it is lost, and that is told later.
  void show(const entrance& where);
  void show(const event& what);

 private:
  void print(const std::string& line);
  std::string coloured(const char* colour, const std::string& text) const;

  bool m_isJson;
  bool m_hasColours;
  size_t m_lost = 0;  // lines
};

}  // namespace mailhost

#endif
