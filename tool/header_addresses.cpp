#include "header_addresses.h"

#include <string_view>

#include "exchange.h"
#include "message_text.h"
#include "mime_library.h"
#include "problem.h"

namespace tavmail {

namespace {

bool is_space(char ch) { return ch == ' ' || ch == '\t' || ch == '\r'; }

// Counts what a value has, whether or not it can be read: entries between separators, and "@"
// outside quotes and comments.
class tally {
 public:
  explicit tally(std::string_view value) {
    for (size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '\\' && (is_in('"') || is_in(')'))) {
        ++i;
      } else {
        take(value[i]);
      }
    }
    end_entry();
  }

  size_t entries() const { return m_entries; }
  size_t at_signs() const { return m_atSigns; }
  bool is_balanced() const { return m_ends.empty(); }

 private:
  bool is_in(char end) const { return !m_ends.empty() && m_ends.back() == end; }

  void take(char ch) {
    if (is_in(ch)) return m_ends.pop_back();
    if (is_in('"')) return;
    if (ch == '(') return m_ends.push_back(')');
    if (is_in(')')) return;
    if (m_ends.empty() && (ch == ',' || ch == ';')) return end_entry();
    // The name of a group was before it.
    if (m_ends.empty() && ch == ':')
      m_hasEntry = false;
    else if (!is_space(ch))
      m_hasEntry = true;
    if (ch == '"') m_ends += '"';
    if (ch == '<') m_ends += '>';
    if (ch == '[') m_ends += ']';
    if (ch == '@') ++m_atSigns;
  }

  void end_entry() {
    if (m_hasEntry) ++m_entries;
    m_hasEntry = false;
  }

  std::string m_ends;  // of the quotes, comments and brackets that are open
  bool m_hasEntry = false;
  size_t m_entries = 0;
  size_t m_atSigns = 0;
};

size_t at_signs_of(const std::vector<std::string>& addresses) {
  size_t count = 0;
  for (const std::string& address : addresses) count += tally(address).at_signs();
  return count;
}

}  // namespace

std::vector<std::string> header_addresses(const std::string& field, const std::string& value) {
  const tally all(value);
  if (all.is_balanced() && value.find('\0') == std::string::npos) {
    std::vector<std::string> found = mime_library::loaded().addresses(value);
    if (found.size() >= all.entries() && at_signs_of(found) == all.at_signs()) return found;
    found = bare_addresses(value);
    if (found.size() == all.entries()) return found;
  }
  constexpr size_t kQuoted = 60;
  throw problem(EX_DATAERR, "the field " + field + " cannot be read as addresses: " +
                                presentable(value.substr(0, kQuoted)) +
                                "; put commas between them, and quotes around names");
}

}  // namespace tavmail
