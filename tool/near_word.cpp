#include "near_word.h"

#include <algorithm>
#include <numeric>

namespace tavmail {

namespace {

// Insertions, deletions and replacements that make one word of the other.
size_t distance(const std::string& left, const std::string& right) {
  std::vector<size_t> row(right.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < left.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < right.size(); ++j) {
      const size_t replaced = diagonal + (left[i] == right[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string did_you_mean(const std::string& word, const std::vector<std::string>& words) {
  const std::string* nearest = nullptr;
  size_t best = std::max<size_t>(2, word.size() / 3) + 1;
  for (const std::string& known : words) {
    const size_t apart = distance(word, known);
    if (apart < best) {
      best = apart;
      nearest = &known;
    }
  }
  return nearest != nullptr ? "; did you mean \"" + *nearest + "\"?" : "";
}

}  // namespace tavmail
