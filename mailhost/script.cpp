#include "script.h"

#include <algorithm>
#include <charconv>

#include "text.h"

namespace mailhost {
namespace {

constexpr size_t max_reply = size_t{16} << 20;  // also when it is said many times
constexpr size_t max_flood_count = 1000000;
constexpr size_t max_number = 1000000000;
constexpr std::chrono::milliseconds max_time = std::chrono::hours(1);
constexpr std::string_view blanks = " \t\r";

struct point_entry {
  const char* name;
  bool smtp, pop3;
};

constexpr point_entry points[] = {
    {"greeting", true, true}, {"answer", true, true}, {"other", true, true},
    {"every", true, true},    {".", true, false},     {"EHLO", true, false},
    {"HELO", true, false},    {"MAIL", true, false},  {"RCPT", true, false},
    {"DATA", true, false},    {"VRFY", true, false},  {"AUTH", true, true},
    {"RSET", true, true},     {"NOOP", true, true},   {"QUIT", true, true},
    {"USER", false, true},    {"PASS", false, true},  {"APOP", false, true},
    {"CAPA", false, true},    {"STLS", false, true},  {"STAT", false, true},
    {"LIST", false, true},    {"UIDL", false, true},  {"RETR", false, true},
    {"TOP", false, true},     {"DELE", false, true},  {"STARTTLS", true, false},
};

// Reads one line of a script, word by word.
class line_reader {
 public:
  line_reader(std::string_view line, size_t number) : m_rest(line), m_number(number) {
    skip_blanks();
  }

  // Nothing for a line that is empty or a comment.
  std::optional<script_rule> rule();

 private:
  [[noreturn]] void fail(const std::string& what) const { throw script_error(m_number, what); }
  void skip_blanks();
  bool at_end() const { return m_rest.empty() || m_rest[0] == '#'; }
  bool at_string() const { return !m_rest.empty() && m_rest[0] == '"'; }
  bool at_number() const { return !m_rest.empty() && m_rest[0] >= '0' && m_rest[0] <= '9'; }
  std::string word();
  size_t number(const char* what, size_t least, size_t most);
  std::chrono::milliseconds time(const std::string& action);
  std::string string();
  char escaped();
  std::string strings(const std::string& action, bool are_lines);

  void read_point(script_rule& into);
  void read_count(script_rule& into);
  void read_action(deviation& into);
  void set_end(deviation& into, deviation::ending end) const;
  void check(const deviation& what) const;

  std::string_view m_rest;
  size_t m_number;
};

void line_reader::skip_blanks() {
  m_rest.remove_prefix(std::min(m_rest.find_first_not_of(blanks), m_rest.size()));
}

std::string line_reader::word() {
  const size_t end = std::min(m_rest.find_first_of(" \t\r\"#"), m_rest.size());
  const std::string found(m_rest.substr(0, end));
  m_rest.remove_prefix(end);
  skip_blanks();
  return found;
}

// Leaves what follows the digits, blanks included, to the caller.
size_t line_reader::number(const char* what, size_t least, size_t most) {
  size_t value = 0;
  const auto result = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), value);
  if (result.ec != std::errc() || value < least || value > most)
    fail(std::string(what) + " wants a number from " + std::to_string(least) + " to " +
         std::to_string(most));
  m_rest.remove_prefix(static_cast<size_t>(result.ptr - m_rest.data()));
  return value;
}

std::chrono::milliseconds line_reader::time(const std::string& action) {
  const std::string text = word();
  const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  const auto count = mailhost::number(std::string_view(text).substr(0, digits));
  const std::string unit = text.substr(digits);
  const auto most = static_cast<uint64_t>(max_time.count());
  if (!count || *count == 0 || *count > most || (unit != "ms" && unit != "s"))
    fail("\"" + action + "\" wants a time, such as 100ms or 2s");
  const auto value = std::chrono::milliseconds(*count * (unit == "s" ? 1000 : 1));
  if (value > max_time) fail("\"" + action + "\" takes an hour at most");
  return value;
}

char line_reader::escaped() {
  static constexpr std::string_view letters = "rnt0\\\"", meaning("\r\n\t\0\\\"", 6);
  if (m_rest.empty()) fail("the string has no end");
  const size_t at = letters.find(m_rest[0]);
  if (at != std::string_view::npos) {
    m_rest.remove_prefix(1);
    return meaning[at];
  }
  unsigned value = 0;
  const std::string_view digits = m_rest.substr(1, 2);
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  if (m_rest[0] != 'x' || digits.size() != 2 || result.ptr != digits.data() + 2)
    fail("unknown escape \"\\" + std::string(m_rest.substr(0, 1)) +
         "\"; there are \\r \\n \\t \\0 \\xNN \\\\ \\\"");
  m_rest.remove_prefix(3);
  return static_cast<char>(value);
}

std::string line_reader::string() {
  std::string text;
  m_rest.remove_prefix(1);
  while (!m_rest.empty() && m_rest[0] != '"') {
    const char c = m_rest[0];
    m_rest.remove_prefix(1);
    text += c == '\\' ? escaped() : c;
  }
  if (m_rest.empty()) fail("the string has no end");
  m_rest.remove_prefix(1);
  return text;
}

std::string line_reader::strings(const std::string& action, bool are_lines) {
  if (!at_string()) fail("\"" + action + "\" wants a string in double quotes");
  std::string all;
  while (at_string()) {
    std::string one = string();
    if (are_lines && (one.empty() || one.back() != '\n')) one += "\r\n";
    size_t times = 1;
    if (!m_rest.empty() && m_rest[0] == '*') {
      m_rest.remove_prefix(1);
      times = number("\"*\"", 1, max_reply);
    }
    if (one.size() > (max_reply - all.size()) / times) fail("the reply is longer than 16 MiB");
    all.reserve(all.size() + one.size() * times);
    for (; times > 0; --times) all += one;
    skip_blanks();
  }
  return all;
}

void line_reader::read_point(script_rule& into) {
  into.point = word();
  if (into.point == "smtp" || into.point == "pop3") {
    into.speaks = into.point == "smtp" ? protocol::smtp : protocol::pop3;
    into.point = word();
  }
  const auto known = std::find_if(std::begin(points), std::end(points),
                                  [&](const point_entry& p) { return into.point == p.name; });
  if (known == std::end(points))
    fail("\"" + into.point + "\" is no point of the dialogue; there are greeting, answer, other, " +
         "every, \".\" and the commands, such as EHLO or RETR");
  if (into.speaks && !(*into.speaks == protocol::smtp ? known->smtp : known->pop3))
    fail(into.point + " does not exist in that protocol");
}

void line_reader::read_count(script_rule& into) {
  if (!at_number()) return;
  into.is_counted = true;
  into.first = into.last = number("the count", 1, max_number);
  const char range = m_rest.empty() ? ' ' : m_rest[0];
  if (range == '+' || range == '-') {
    m_rest.remove_prefix(1);
    into.last = range == '+' ? SIZE_MAX : number("the count", into.first, max_number);
  }
  if (!at_end() && !at_string() && blanks.find(m_rest[0]) == std::string_view::npos)
    fail("a count is a number, or as in 2+ or 2-5");
  skip_blanks();
}

void line_reader::set_end(deviation& into, deviation::ending end) const {
  if (into.end != deviation::ending::none) fail("one of silence, close and reset is enough");
  into.end = end;
}

void line_reader::read_action(deviation& into) {
  if (at_string() && into.reply) fail("there is a reply already");
  if (at_string()) {
    into.reply = strings("", true);
    return;
  }
  const std::string action = word();
  if (action == "bytes") {
    if (into.reply) fail("there is a reply already");
    into.reply = strings(action, false);
  } else if (action == "silence") {
    set_end(into, deviation::ending::silence);
  } else if (action == "close") {
    set_end(into, deviation::ending::close);
  } else if (action == "reset") {
    set_end(into, deviation::ending::reset);
  } else if (action == "cut") {
    into.cut = number("\"cut\"", 0, max_number);
  } else if (action == "inject") {
    into.injected = strings(action, true);
  } else if (action == "flood") {
    into.flood = number("\"flood\"", 2, max_flood_count);
  } else if (action == "delay") {
    into.delay = time(action);
  } else if (action == "drip") {
    into.drip = time(action);
  } else {
    fail("\"" + action + "\" is no action; there are a reply in double quotes, bytes, silence, " +
         "close, reset, cut, inject, flood, delay and drip");
  }
  skip_blanks();
}

void line_reader::check(const deviation& what) const {
  const bool says_something = what.reply || what.cut || !what.injected.empty() || what.flood != 1;
  if (what.end == deviation::ending::silence && (says_something || what.changes_pace()))
    fail("\"silence\" goes with no other action");
  if (what.cut && what.end != deviation::ending::none) fail("\"cut\" closes the connection itself");
  if (what.reply && what.reply->size() > max_reply / what.flood)
    fail("the reply is longer than 16 MiB");
}

std::optional<script_rule> line_reader::rule() {
  if (at_end()) return std::nullopt;
  const std::string_view whole = m_rest;
  script_rule found;
  read_point(found);
  read_count(found);
  if (at_end()) fail("what is to be done at " + found.point + " is missing");
  while (!at_end()) read_action(found.what);
  check(found.what);
  const std::string_view source = whole.substr(0, whole.size() - m_rest.size());
  found.what.source = source.substr(0, source.find_last_not_of(blanks) + 1);
  return found;
}

// The higher, the sooner it counts; 0 when the rule is for something else.
int rank(const script_rule& rule, protocol speaks, const std::string& point, size_t nth,
         size_t nth_of_all) {
  const bool is_every = rule.point == "every";
  const size_t count = is_every ? nth_of_all : nth;
  if (rule.speaks && *rule.speaks != speaks) return 0;
  if (!is_every && rule.point != point) return 0;
  if (count < rule.first || count > rule.last) return 0;
  return 1 + (is_every ? 0 : 2) + (rule.is_counted ? 1 : 0);
}

}  // namespace

void script::add(std::string_view text) {
  std::vector<script_rule> added;
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (auto rule = line_reader(text.substr(0, end), number).rule())
      added.push_back(std::move(*rule));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  m_rules.insert(m_rules.end(), added.begin(), added.end());
}

deviation script::at(protocol speaks, const std::string& point, size_t nth,
                     size_t nth_of_all) const {
  const deviation* reply = nullptr;
  const deviation* pace = nullptr;
  int reply_rank = 0, pace_rank = 0;
  for (const script_rule& rule : m_rules) {
    const int found = rank(rule, speaks, point, nth, nth_of_all);
    if (found == 0) continue;
    if (rule.what.changes_reply() && found >= reply_rank) {
      reply = &rule.what;
      reply_rank = found;
    }
    if (rule.what.changes_pace() && found >= pace_rank) {
      pace = &rule.what;
      pace_rank = found;
    }
  }
  deviation result;
  if (reply != nullptr) result = *reply;
  if (pace != nullptr && result.end != deviation::ending::silence) {
    result.delay = pace->delay;
    result.drip = pace->drip;
    if (pace != reply) result.source += (reply != nullptr ? "; " : "") + pace->source;
  }
  return result;
}

}  // namespace mailhost
