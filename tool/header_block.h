// header_block.h - the header of a mail that is ready to be sent.

#ifndef HEADER_BLOCK_H
#define HEADER_BLOCK_H

#include <string>
#include <string_view>
#include <vector>

namespace tavmail {

struct header_field {
  std::string name;
  std::string
      value;  // what follows the colon; as it stands in a block, with its folds and line end
};

// Fields in their order. Lines end in a line feed; names count in any case.
class header_block {
 public:
  // Takes a line, its end included. False when it is neither a field nor a fold: it is left.
  bool take(std::string_view line);

  bool is_empty() const { return m_fields.empty(); }
  const std::vector<header_field>& fields() const { return m_fields; }
  bool has(std::string_view name) const;
  // The values of all fields of that name, unfolded.
  std::vector<std::string> values(std::string_view name) const;
  void remove(std::string_view name);
  // A value in one line, without its end.
  void add(const std::string& name, const std::string& value);
  // With the empty line that ends it.
  std::string text() const;

 private:
  std::vector<header_field> m_fields;
};

// field-name = 1*(%d33-57 / %d59-126) (RFC 5322 3.6.8)
bool is_field_name(std::string_view name);

}  // namespace tavmail

#endif
