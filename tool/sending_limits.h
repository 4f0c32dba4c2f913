// sending_limits.h - what a user lets go out: how large a mail, and to whom.

#ifndef SENDING_LIMITS_H
#define SENDING_LIMITS_H

#include <cstdint>
#include <string>
#include <vector>

#include "command_line.h"

namespace tavmail {

struct sending_limits {
  uint32_t size_limit = 0;          // bytes; 0: none
  std::vector<std::string> permit;  // domains and addresses that mail may go to
  std::vector<std::string> deny;    // and those that it may not

  void add_to(command_line& command, const char* group);
};

}  // namespace tavmail

#endif
