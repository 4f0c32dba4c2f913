// table.h - tables of rules: what a function gives for its arguments.
//
//   from_qp: soft breaks go                     which function, and what its cases show
//     a=\r\nb -> ab   (null) -> (failed) ## null pointer
//
// Two blanks or a new line end a case. Bars part the arguments before the arrow and what the
// function gives after it; behind ## stands what a line of the log holds. \r \n \t \0 \e \s (a
// blank) and \xHH are bytes, {text*N} a text N times, (null) is a null pointer. A line with six
// blanks before it goes on with the case before it. A # begins a comment.

#ifndef TESTS_UNIT_TABLE_H
#define TESTS_UNIT_TABLE_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "values.h"

namespace tav_test {

struct columns : std::vector<std::optional<std::string>> {
  explicit columns(const std::string& text);
  const std::string& operator[](size_t i) const { return *at(i); }
  const char* c_str(size_t i) const { return at(i) ? at(i)->c_str() : nullptr; }
  // The length to hand over; some length for a null pointer.
  long length(size_t i) const { return at(i) ? size_of(*at(i)) : 4; }
  int number(size_t i) const { return std::stoi(*at(i)); }
};

// What a function gives, in columns with bars between them.
using rule = std::string (*)(const columns& in);
extern const std::map<std::string, rule> all_rules;

std::string joined(const std::vector<std::string>& texts);
inline std::string str(long number) { return std::to_string(number); }

// result_of() of a call that must not throw, whatever the device's memory does, and hands out a
// block when it succeeds.
template <typename Pointer = char*, typename Call>
std::string handed_out(Call&& call) {
  bool is_empty = false;
  try {
    const std::string result = result_of<Pointer>([&](Pointer& out, long& length) {
      const int succeeded = call(out, length);
      is_empty = succeeded != 0 && out == nullptr;
      return succeeded;
    });
    return is_empty ? "(failed, and said that it had not)" : result;
  } catch (quorvelmida::tav_eml_mlutl_mail_exception* thrown) {
    delete thrown;
    return "(failed, and threw)";
  }
}

}  // namespace tav_test

#endif
