// Runs the tables: every case as it stands, and again with each allocation failed in turn, by a
// null pointer and by an exception. Then the result may be another one, but nothing leaks, is left
// half done or goes without a line in the log.

#include "table.h"

#include <gtest/gtest.h>

#include <fstream>
#include <new>
#include <regex>
#include <set>

#include "fake_memory.h"
#include "log_capture.h"

namespace tav_test {

namespace {

// More than any case needs, and less than a length out of bounds would ask for.
constexpr size_t kMemoryOfACase = 200000;

std::string unescaped(const std::string& text) {
  static const std::map<char, char> bytes = {{'r', '\r'}, {'n', '\n'},   {'t', '\t'}, {'0', '\0'},
                                             {'s', ' '},  {'e', '\033'}, {'\\', '\\'}};
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '{') {
      const size_t times = text.find('*', i);
      const std::string piece = unescaped(text.substr(i + 1, times - i - 1));
      out += repeated(piece, std::stoul(text.substr(times + 1)));
      i = text.find('}', i);
    } else if (text[i] != '\\') {
      out += text[i];
    } else if (text[++i] == 'x') {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += bytes.at(text[i]);
    }
  }
  return out;
}

// Gives what it should or "(failed)", whatever the memory does.
bool is_whole_or_nothing(const std::string& function) {
  static const std::set<std::string> functions = {"from_b64", "to_b64",      "from_qp",
                                                  "to_qb",    "part header", "MakeMultiLine"};
  return functions.count(function) != 0;
}

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
  bool is_logged = !throws;
  try {
    result = all_rules.at(function)(in);
  } catch (const std::bad_alloc&) {  // by a text of the test
    is_logged = true;
  } catch (quorvelmida::tav_eml_mlutl_mail_exception* thrown) {
    delete thrown;
    is_logged = true;
  }
  const bool has_failed = memory.failed();
  memory.never_fail();
  std::vector<std::string> texts;
  for (const auto& text : expected) texts.push_back(text.value_or("(null)"));
  if (!has_failed || (is_whole_or_nothing(function) && result != "(failed)")) {
    EXPECT_EQ(result, joined(texts));
  }
  if (!has_failed) {
    EXPECT_TRUE(note == line.size() || log.contains(line.substr(note + 4))) << log.all();
  }
  for (const char* said : {"thrown", "Exception occured", "out of memory"}) {
    is_logged = is_logged || log.contains(said);
  }
  EXPECT_TRUE(is_logged || !has_failed) << log.all();
  EXPECT_EQ(result.find("(failed, and"), std::string::npos) << result;
  EXPECT_LT(memory.peak_bytes(), kMemoryOfACase);
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
  std::ifstream file(UNIT_FOLDER "/" + name + ".table");
  std::string function;
  std::vector<std::string> cases;
  const auto run_cases = [&] {
    for (const std::string& one : cases) run(function, one);
    cases.clear();
  };
  for (std::string line; std::getline(file, line);) {
    if (line.compare(0, 6, "      ") == 0) {
      cases.back() += (line.compare(6, 2, "->") == 0 ? " " : "") + line.substr(6);
    } else if (line.compare(0, 2, "  ") == 0) {
      const std::regex gap(" {2,}");
      std::sregex_token_iterator it(line.begin() + 2, line.end(), gap, -1), end;
      cases.insert(cases.end(), it, end);
    } else if (!line.empty() && line[0] != '#') {
      run_cases();
      function = line.substr(0, line.find(": "));
    }
  }
  EXPECT_FALSE(cases.empty());
  run_cases();
}

TEST(Table, codec) { run_table("codec"); }
TEST(Table, compose) { run_table("compose"); }
TEST(Table, receive) { run_table("receive"); }

}  // namespace

columns::columns(const std::string& text) {
  const std::regex bar(" *\\| *");
  const std::string values = std::regex_replace(text, std::regex("^ +| +$"), "") + "|";
  for (std::sregex_token_iterator it(values.begin(), values.end(), bar, -1), end; it != end; ++it) {
    push_back(*it == "(null)" ? std::nullopt : std::make_optional(unescaped(*it)));
  }
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += "|" + text;
  return all.substr(std::min<size_t>(all.size(), 1));
}

}  // namespace tav_test
