#include "header_block.h"

#include <algorithm>

#include "words.h"

namespace tavmail {

namespace {

std::string_view without_blanks(std::string_view text) {
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

std::string unfolded(const std::string& value) {
  std::string line;
  for (const char ch : value) {
    if (ch != '\n') line += ch;
  }
  return line;
}

}  // namespace

bool is_field_name(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(),
                                      [](char ch) { return ch > ' ' && ch <= '~' && ch != ':'; });
}

bool header_block::take(std::string_view line) {
  if (!m_fields.empty() && is_blank(line.front())) {
    m_fields.back().value.append(line);
    return true;
  }
  const size_t colon = std::min(line.find(':'), line.size());
  const std::string_view name = without_blanks(line.substr(0, colon));
  if (colon == line.size() || !is_field_name(name)) return false;
  m_fields.push_back({std::string(name), std::string(line.substr(colon + 1))});
  return true;
}

bool header_block::has(std::string_view name) const {
  return std::any_of(m_fields.begin(), m_fields.end(),
                     [&](const header_field& field) { return is_same_word(field.name, name); });
}

std::vector<std::string> header_block::values(std::string_view name) const {
  std::vector<std::string> found;
  for (const header_field& field : m_fields) {
    if (is_same_word(field.name, name)) found.push_back(unfolded(field.value));
  }
  return found;
}

void header_block::remove(std::string_view name) {
  const auto is_named = [&](const header_field& field) { return is_same_word(field.name, name); };
  m_fields.erase(std::remove_if(m_fields.begin(), m_fields.end(), is_named), m_fields.end());
}

void header_block::add(const std::string& name, const std::string& value) {
  m_fields.push_back({name, " " + value + "\n"});
}

std::string header_block::text() const {
  std::string lines;
  for (const header_field& field : m_fields) lines += field.name + ":" + field.value;
  return lines + "\n";
}

}  // namespace tavmail
