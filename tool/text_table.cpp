#include "text_table.h"

#include <dlfcn.h>

#include <cstdlib>
#include <new>

#include "problem.h"

namespace tavmail {

namespace {

void* library() {
  static void* const handle = dlopen("libsmartcols.so.1", RTLD_NOW | RTLD_NODELETE);
  return handle;
}

// An operation of the library, by its name.
template <typename Operation>
Operation* find(const char* name) {
  void* const found = library() != nullptr ? dlsym(library(), name) : nullptr;
  if (found != nullptr) return reinterpret_cast<Operation*>(found);
  throw problem(EX_OSERR,
                "libsmartcols.so.1 cannot be used for a table; install it, or use --json");
}

template <typename Result>
void require(Result is_good) {
  if (!is_good) throw std::bad_alloc();
}

}  // namespace

text_table::text_table(size_t line_width)
    : m_table(find<decltype(scols_new_table)>("scols_new_table")(),
              find<decltype(scols_unref_table)>("scols_unref_table")) {
  libscols_table* const table = m_table.get();
  require(table);
  find<decltype(scols_table_enable_noencoding)>("scols_table_enable_noencoding")(table, 1);
  find<decltype(scols_table_set_termforce)>("scols_table_set_termforce")(table,
                                                                         SCOLS_TERMFORCE_ALWAYS);
  find<decltype(scols_table_set_termwidth)>("scols_table_set_termwidth")(table, line_width);
}

void text_table::add_column(const char* title, double width, int flags) {
  const auto add = find<decltype(scols_table_new_column)>("scols_table_new_column");
  require(add(m_table.get(), title, width, flags));
}

void text_table::add_line(const std::vector<std::string>& cells) {
  const auto add = find<decltype(scols_table_new_line)>("scols_table_new_line");
  const auto set = find<decltype(scols_line_set_data)>("scols_line_set_data");
  libscols_line* const line = add(m_table.get(), nullptr);
  require(line);
  for (size_t i = 0; i < cells.size(); ++i) require(set(line, i, cells[i].c_str()) == 0);
}

std::string text_table::text() const {
  char* data = nullptr;
  const auto print = find<decltype(scols_print_table_to_string)>("scols_print_table_to_string");
  require(print(m_table.get(), &data) == 0);
  const std::unique_ptr<char, decltype(&std::free)> owner(data, std::free);
  return data != nullptr ? data : "";
}

}  // namespace tavmail
