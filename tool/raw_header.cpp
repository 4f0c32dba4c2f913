#include "raw_header.h"

#include <algorithm>

#include "words.h"

namespace tavmail {

namespace {

constexpr size_t kLongestHeader = 256 * 1024;  // the library reads no longer header

// True when the field name of a line is `name`, which is in lower case.
bool has_name(std::string_view line, std::string_view name) {
  const std::string found = trimmed(line.substr(0, line.find(':')));
  return found.size() == name.size() &&
         std::equal(found.begin(), found.end(), name.begin(), [](char ch, char lower) {
           return (ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch) == lower;
         });
}

}  // namespace

void raw_header::begin() {
  m_state = state::status;
  m_line.clear();
  m_text.clear();
}

void raw_header::take(std::string_view received) {
  while (m_state != state::elsewhere && !received.empty()) {
    const size_t count = std::min(received.find('\n'), received.size() - 1) + 1;
    m_line.append(received.substr(0, count));
    received.remove_prefix(count);
    if (m_line.back() == '\n') {
      take_line(m_line);
      m_line.clear();
    } else if (m_line.size() > kLongestHeader) {
      m_state = state::elsewhere;
    }
  }
}

void raw_header::take_line(std::string_view line) {
  if (m_state == state::status) {
    m_state = line.find("+OK") != line.npos ? state::header : state::elsewhere;
    return;
  }
  const std::string_view text = without_line_end(line);
  const bool is_end = text == "." || (text.empty() && !m_text.empty());
  if (is_end || m_text.size() + line.size() > kLongestHeader) {
    m_state = state::elsewhere;
    return;
  }
  // The dot that the transfer has put in front.
  m_text.append(text.substr(text.substr(0, 1) == "." ? 1 : 0)).append("\n");
}

std::optional<std::string> raw_header::value(std::string_view name) const {
  std::optional<std::string> found;
  bool is_wanted = false;
  for (size_t at = 0; at < m_text.size();) {
    const size_t end = m_text.find('\n', at);
    const std::string_view line(m_text.data() + at, end - at);
    at = end + 1;
    if (!line.empty() && is_blank(line.front())) {
      if (is_wanted) found->append(line);
      continue;
    }
    const size_t colon = line.find(':');
    is_wanted = colon != std::string_view::npos && has_name(line, name);
    if (is_wanted) found.emplace(line.substr(colon + 1));
  }
  if (found) found = trimmed(*found);
  return found;
}

receive_tap::receive_tap(dialogue_view& view, raw_header& header) : m_view(view), m_header(header) {
  const auto observe = [](void* context, TAV_WIRETAP_EVENT event, const char* bytes,
                          size_t length) {
    const auto* tap = static_cast<const receive_tap*>(context);
    tap->m_view.take(event, {bytes, length});
    if (event == TAV_WIRETAP_RECEIVED) tap->m_header.take({bytes, length});
  };
  tav_wiretap_set(observe, this);
}

receive_tap::~receive_tap() { tav_wiretap_set(nullptr, nullptr); }

}  // namespace tavmail
