// tables.h - all tables of dialogues.

#ifndef TABLES_H
#define TABLES_H

#include "device.h"

namespace dialogue {

struct table {
  std::string file;
  std::vector<dialogue_case> cases;
};

const std::vector<table>& tables();
std::string test_name(const dialogue_case& what);

// Make tests of them.
void add_tables();
void add_storms();

}  // namespace dialogue

#endif
