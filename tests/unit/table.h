// table.h - tables of rules: what a function gives for its arguments.
//
//   from_qp: soft breaks go                     which function, and what its cases show
//     a=\r\nb -> ab   (null) -> (failed) ## null pointer
//
// Two blanks or a new line end a case. Bars part the arguments before the arrow and what the
// function gives after it; behind ## stands what a line of the log holds. (null) is a null pointer,
// other texts are written as in dialogue/case_file.h. A line with six blanks before it goes on with
// the case before it. A # begins a comment.

#ifndef TESTS_UNIT_TABLE_H
#define TESTS_UNIT_TABLE_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../dialogue/case_file.h"
#include "values.h"

namespace tav_test {

struct columns : std::vector<std::string> {
  explicit columns(const std::string& text) {
    for (const std::string& piece : dialogue::pieces_of(text, "|"))
      push_back(dialogue::expand(piece));
  }
  const char* c_str(size_t i) const { return at(i) != "(null)" ? at(i).c_str() : nullptr; }
  // The same bytes with no NUL after them: a sanitizer sees what reads on.
  std::unique_ptr<char[]> bytes(size_t i) const {
    std::unique_ptr<char[]> all(c_str(i) != nullptr ? new char[at(i).size()] : nullptr);
    if (all) at(i).copy(all.get(), at(i).size());
    return all;
  }
  // The length to hand over; some length for a null pointer.
  long length(size_t i) const { return c_str(i) != nullptr ? size_of(at(i)) : 4; }
  int number(size_t i) const { return std::stoi(at(i)); }
};

// The functions by name. What a function gives are columns, too, with bars between them.
using rule = std::string (*)(const columns& in);
std::map<std::string, rule>& rules();

inline std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += "|" + text;
  return all.empty() ? all : all.substr(1);
}

}  // namespace tav_test

#endif
