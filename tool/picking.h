// picking.h - which mails of a mailbox are meant.

#ifndef PICKING_H
#define PICKING_H

#include <string>
#include <vector>

#include "command_line.h"
#include "mailbox_session.h"

namespace tavmail {

struct picking {
  std::vector<int> numbers;
  std::vector<std::string> uids;

  // `what` is done with them: "fetch".
  void add_to(command_line& command, const std::string& what);

  bool is_empty() const { return numbers.empty() && uids.empty(); }
  bool has(const listed_mail& mail) const;
  // Throws a problem when the mailbox lacks one of them.
  void require_all(const std::vector<listed_mail>& mails) const;
};

}  // namespace tavmail

#endif
