#include "case_file.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <list>
#include <map>
#include <stdexcept>

namespace dialogue {
namespace {

using std::string;
using std::string_view;

[[noreturn]] void fail(const string& what) { throw std::runtime_error(what); }

string trimmed(string_view text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == string_view::npos) return "";
  return string(text.substr(first, text.find_last_not_of(' ') + 1 - first));
}

void replace_all(string& text, const string& what, const string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != string::npos; at += by.size())
    text.replace(at, what.size(), by);
}

statement parse(string text) {
  statement one;
  const size_t arrow = text.rfind("->");
  if (arrow != string::npos) {
    one.expected = trimmed(string_view(text).substr(arrow + 2));
    text = trimmed(string_view(text).substr(0, arrow));
  }
  one.verb = word_of(text);
  one.rest = text;
  return one;
}

void add_statements(std::vector<statement>& to, const string& text) {
  for (const string& one : pieces_of(text, "; "))
    if (!one.empty()) to.push_back(parse(one));
}

// Where the brace that opens at `at` is closed.
size_t closing(string_view text, size_t at) {
  for (int depth = 0; at < text.size(); ++at) {
    if (text[at] == '\\')
      ++at;
    else if (text[at] == '{')
      ++depth;
    else if (text[at] == '}' && --depth == 0)
      return at;
  }
  fail("a brace is not closed in " + string(text));
}

string repeated_text(string_view inner) {
  const size_t star = inner.rfind('*');
  if (star == string_view::npos) fail("nothing is called {" + string(inner) + "}");
  const size_t times = std::stoul(string(inner.substr(star + 1)));
  const string piece = expand(inner.substr(0, star));
  string all;
  for (size_t i = 0; i < times; ++i) all += piece;
  return all;
}

// Of the text behind the backslash at `at`, which moves to the last character of the escape.
char escaped(string_view text, size_t& at) {
  static constexpr string_view letters = "nrt0es", meaning("\n\r\t\0\x1b ", 6);
  const char letter = ++at < text.size() ? text[at] : '\\';
  if (letter == 'x') {
    at += 2;
    return static_cast<char>(std::strtol(string(text.substr(at - 1, 2)).c_str(), nullptr, 16));
  }
  const size_t known = letters.find(letter);
  return known != string_view::npos ? meaning[known] : letter;
}

class reader {
 public:
  void take(const string& line, int number) {
    const size_t indent = line.find_first_not_of(' ');
    string text = line;
    for (const auto& [name, meaning] : m_names) replace_all(text, "{" + name + "}", meaning);
    text = trimmed(text);
    if (indent == 0) return begin(text, number);
    if (cases.empty()) fail("a statement before the first case");
    if (m_eachIndent != 0 && indent > m_eachIndent) {
      for (const string& row : pieces_of(text, " || ")) add_row(row, number);
      return;
    }
    if (m_eachIndent != 0) fail("a statement after the rows");
    const size_t each = text.substr(0, 5) == "each " ? 0 : text.find("; each ");
    add_statements(cases.back().rows[0].statements, text.substr(0, each));
    if (each == string::npos) return;
    m_eachIndent = indent;
    m_template = text.substr(text.find("each ", each) + 5);
    m_before = cases.back().rows[0].statements;
    cases.back().rows.clear();
  }

  explicit reader(string file) : m_file(std::move(file)) {}

  std::list<dialogue_case> cases;

 private:
  void begin(string text, int number) {
    const string kind = word_of(text);
    if (kind == "let") {
      const string name = word_of(text);
      m_names[name] = text;
    } else if (kind == "case" || kind == "storm") {
      if (kind == "storm") word_of(text);
      cases.push_back({m_file, text, kind == "storm", {{number, {}}}});
      m_eachIndent = 0;
    } else {
      fail("\"" + kind + "\" begins nothing");
    }
  }

  void add_row(const string& text, int number) {
    string filled = m_template;
    const std::vector<string> cells = pieces_of(text, "|");
    for (size_t i = cells.size(); i > 0; --i)
      replace_all(filled, "$" + std::to_string(i), cells[i - 1]);
    case_row row = {number, m_before};
    add_statements(row.statements, filled);
    cases.back().rows.push_back(row);
  }

  string m_file, m_template;
  std::map<string, string> m_names;
  std::vector<statement> m_before;
  size_t m_eachIndent = 0;
};

std::list<dialogue_case> read_cases(const string& name) {
  const string path = TAV_CASES "/" + name + ".cases";
  std::ifstream file(path);
  if (!file) fail("cannot read " + path);
  reader into(name);
  string line, whole;
  for (int number = 1; std::getline(file, line); ++number) {
    whole += whole.empty() ? line : trimmed(line);
    if (!whole.empty() && whole.back() == '\\') {
      whole.pop_back();
      continue;
    }
    try {
      if (!trimmed(whole).empty() && trimmed(whole)[0] != '#') into.take(whole, number);
    } catch (const std::runtime_error& error) {
      fail(path + ":" + std::to_string(number) + ": " + error.what());
    }
    whole.clear();
  }
  return std::move(into.cases);
}

}  // namespace

string word_of(string& text) {
  const size_t end = std::min(text.find(' '), text.size());
  const string found = text.substr(0, end);
  text = trimmed(string_view(text).substr(end));
  return found;
}

std::vector<string> pieces_of(string_view text, string_view by) {
  std::vector<string> pieces;
  for (size_t end = 0; end != string_view::npos;) {
    end = text.find(by);
    pieces.push_back(trimmed(text.substr(0, end)));
    text.remove_prefix(end == string_view::npos ? text.size() : end + by.size());
  }
  return pieces;
}

string expand(string_view text) {
  string bytes;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '^') {
      bytes += "\r\n";
    } else if (text[at] == '\\') {
      bytes += escaped(text, at);
    } else if (text[at] == '{') {
      const size_t end = closing(text, at);
      bytes += repeated_text(text.substr(at + 1, end - at - 1));
      at = end;
    } else {
      bytes += text[at];
    }
  }
  return bytes;
}

std::vector<const dialogue_case*> all_cases(bool only_storms) {
  static const std::list<dialogue_case> all = [] {
    std::list<dialogue_case> read;
    for (const char* name : {"smtp", "login", "mail", "pop3", "received"})
      read.splice(read.end(), read_cases(name));
    return read;
  }();
  std::vector<const dialogue_case*> wanted;
  for (const dialogue_case& one : all)
    if (one.storm || !only_storms) wanted.push_back(&one);
  return wanted;
}

string test_name(const testing::TestParamInfo<const dialogue_case*>& info) {
  string name = info.param->file + "_" + info.param->name;
  for (char& c : name)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  return name;
}

}  // namespace dialogue
