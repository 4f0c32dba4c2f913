// Runs the tables: every case as it stands, and again with each allocation failed in turn, by a
// null pointer and by an exception. Then the result may be another one, but nothing leaks, is left
// half done or goes without a line in the log.

#include "table.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <new>
#include <regex>
#include <set>
#include <sstream>

#include "fake_memory.h"
#include "log_capture.h"

namespace tav_test {

namespace {

// More than any case needs, and less than a length out of bounds would ask for.
constexpr size_t kMemoryOfACase = 200000;

// Give what they should or "(failed)", whatever the memory does.
const std::set<std::string> kWholeOrNothing = {"from_b64", "to_b64",      "from_qp",
                                               "to_qb",    "part_header", "MakeMultiLine"};

// Fails the nth allocation, none for 0. Whether there was one.
bool hold(const std::string& function, const std::string& line, size_t nth, bool throws) {
  const size_t arrow = line.find("->"), note = std::min(line.find(" ## "), line.size());
  const columns in(line.substr(0, arrow)), expected(line.substr(arrow + 2, note - arrow - 2));
  const log_capture log;
  fake_memory memory;
  if (throws) {
    memory.fail_by([] { throw new quorvelmida::tav_eml_mlutl_mail_exception("thrown"); });
  }
  memory.fail(nth);
  std::string result = "(failed)";
  bool is_logged = function == "make_signature" && !throws;  // which leaves the text as it is
  try {
    result = rules().at(function)(in);
  } catch (const std::bad_alloc&) {  // by a text of the test
    is_logged = true;
  } catch (quorvelmida::tav_eml_mlutl_mail_exception* thrown) {
    delete thrown;
    is_logged = true;
  }
  const bool has_failed = memory.state().failed;
  memory.never_fail();
  if (!has_failed || (kWholeOrNothing.count(function) != 0 && result != "(failed)")) {
    EXPECT_EQ(result, joined(expected));
  }
  if (!has_failed) {
    EXPECT_TRUE(note == line.size() || log.contains(line.substr(note + 4))) << log.all();
  }
  for (const char* said : {"thrown", "Exception occured", "memory", "Mem", "pBuffer is null"}) {
    is_logged = is_logged || log.contains(said);
  }
  EXPECT_TRUE(is_logged || !has_failed) << log.all();
  EXPECT_EQ(result.find("(failed, and"), std::string::npos) << result;
  EXPECT_LT(memory.state().peak_bytes, kMemoryOfACase);
  EXPECT_TRUE(memory.clean());
  return has_failed;
}

void run(const std::string& function, const std::string& line) {
  SCOPED_TRACE(function + ": " + line);
  hold(function, line, 0, false);
  for (const bool throws : {false, true}) {
    for (size_t nth = 1; hold(function, line, nth, throws); ++nth) ASSERT_LT(nth, 2000u);
  }
}

void run_table(const std::string& name) {
  std::ifstream file(TAV_CASES "/" + name + ".table");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  std::istringstream lines(std::regex_replace(text, std::regex("\n {6}"), ""));
  std::string function;
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, 2, "  ") == 0) {
      for (const std::string& one : dialogue::pieces_of(line, "  "))
        if (!one.empty()) run(function, one);
    } else if (!line.empty() && line[0] != '#') {
      function = line.substr(0, line.find(": "));
    }
  }
  EXPECT_NE(function, "");
}

TEST(Table, codec) { run_table("codec"); }
TEST(Table, compose) { run_table("compose"); }
TEST(Table, receive) { run_table("receive"); }

}  // namespace

}  // namespace tav_test
