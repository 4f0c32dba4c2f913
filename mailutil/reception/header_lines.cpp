#include "reception/header_lines.h"

#include <algorithm>
#include <utility>

#include "codec/encoded_words.h"
#include "common/text.h"

namespace quorvelmida {

namespace {

constexpr std::string_view kLineEnd = "\r\n";

std::string_view without_line_end(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

}  // namespace

std::string_view cut_line(std::string_view& header) {
  const std::string_view line = header.substr(0, header.find('\n'));
  const size_t size = std::min(line.size() + 1, header.size());
  const std::string_view whole = header.substr(0, size);
  header.remove_prefix(size);
  return whole;
}

header_lines::header_lines(std::string_view header) {
  m_cText.reserve(header.size() + 1);
  while (!header.empty()) {
    const size_t end = header.find(kLineEnd);
    const size_t size = end == header.npos ? header.size() : end + kLineEnd.size();
    m_cText.append(begin(header.substr(0, size)));
    header.remove_prefix(size);
  }
}

header_lines::header_lines(std::string_view received, TAV_EML_CHAR_SET& char_set) {
  // Decoding never lengthens the text. The NULs fit in the bytes that unfolding removes, except in
  // a header of many short lines.
  m_cText.reserve(received.size() + received.size() / 16);
  while (!received.empty()) {
    const std::string_view line = cut_line(received);
    const size_t colon = std::min(line.find(':'), line.size() - 1);
    const size_t name_size = is_blank(line.front()) ? 0 : colon + 1;
    const std::string_view rest = begin(line);
    const size_t skipped = line.size() - rest.size();
    m_cText.append(rest.substr(0, name_size - std::min(name_size, skipped)));
    append_decoded(line.substr(std::max(name_size, skipped)), m_cText, char_set);
  }
}

// Ends the previous line, unless this one continues it. Returns the text to append. Only CR LF as
// received ends a line: unfolding can bring a lone CR and a lone LF together.
std::string_view header_lines::begin(std::string_view line) {
  const bool is_new = std::exchange(m_bIsEnded, ends_line(line)) && !m_cText.empty();
  if (!is_new) return line;
  if (!is_blank(line.front())) {
    m_cText.push_back('\0');
    return line;
  }
  m_cText.resize(m_cText.size() - kLineEnd.size());
  return line.substr(1);
}

bool header_lines::next(size_t& at, std::string_view& line) const {
  if (at >= m_cText.size()) return false;
  line = m_cText.c_str() + at;
  at += line.size() + 1;
  return true;
}

bool find_received_field(std::string_view received, std::string_view name, std::string& value) {
  bool is_found = false;
  bool continues = false;
  while (!received.empty()) {
    const std::string_view line = cut_line(received);
    if (is_blank(line.front())) {
      if (continues) value.append(without_line_end(line.substr(1)));
      continue;
    }
    continues = begins_with_word(line, name);
    if (!continues) continue;
    value = without_line_end(line);
    is_found = true;
  }
  return is_found;
}

}  // namespace quorvelmida
