// text_table.h - a table for a person. libsmartcols lays it out.

#ifndef TEXT_TABLE_H
#define TEXT_TABLE_H

#include <libsmartcols/libsmartcols.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace tavmail {

// Texts in it are fit to be shown already.
class text_table {
 public:
  // Columns that a line has. Throws a problem when the library cannot be loaded: it is loaded here,
  // as most runs of the tool show no table.
  explicit text_table(size_t line_width);

  // `width`: columns, or a share of the line below 1. `flags`: SCOLS_FL_RIGHT, SCOLS_FL_TRUNC.
  void add_column(const char* title, double width, int flags);
  void add_line(const std::vector<std::string>& cells);
  std::string text() const;

 private:
  std::unique_ptr<libscols_table, void (*)(libscols_table*)> m_table;
};

}  // namespace tavmail

#endif
