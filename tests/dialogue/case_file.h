// case_file.h - tables of dialogues, one case a paragraph.
//
//   # a comment
//   let NAME text                   {NAME} stands for the text from here on
//   case NAME
//     STATEMENT; STATEMENT          done in this order; a ";" and a blank part two on one line
//     each STATEMENT; STATEMENT     what comes before, then this, once for each row below
//       CELL | CELL                 $1 stands for the first cell of the row
//       CELL || CELL || CELL        several rows on one line
//   storm case NAME                 also with every call failed in turn, and by hostile servers
//
// A line that ends in "\" goes on in the next one. Words of statements are in device.h.
//
// In texts, ^ is CR LF, {x*5000} is x so many times (x may be any text), and there are \n \r \t \0
// \e \xNN, \s for a blank, and \ before any other character for itself.

#ifndef CASE_FILE_H
#define CASE_FILE_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace dialogue {

struct statement {
  std::string verb, rest;  // of "test -> REPLY": "test" and ""; "-> OK" is left out
  std::string expected;    // "REPLY"
};

// A case without rows has one.
struct case_row {
  int line = 0;
  std::vector<statement> statements;
};

struct dialogue_case {
  std::string file, name;
  bool storm = false;
  std::vector<case_row> rows;

  bool receives() const { return file == "pop3" || file == "received"; }
};

// Of all tables, or the storm cases only. Throws std::runtime_error for a file that cannot be read
// or understood.
std::vector<const dialogue_case*> all_cases(bool only_storms = false);
std::string test_name(const testing::TestParamInfo<const dialogue_case*>& info);

// The bytes that a text stands for.
std::string expand(std::string_view text);

// Takes the first word off.
std::string word_of(std::string& text);

// At each `by`, without blanks around the pieces.
std::vector<std::string> pieces_of(std::string_view text, std::string_view by);

}  // namespace dialogue

#endif
