#include "sending_limits.h"

namespace tavmail {

void sending_limits::add_to(command_line& command, const char* group) {
  command.add("--size-limit", size_limit, "most bytes of the mail; 500K, 5M")
      .value_name("SIZE")
      .group(group)
      .as_size();
  const option only =
      command.add("--permit", permit, "domain or address mail may go to; repeatable")
          .value_name("NAME")
          .group(group)
          .repeatable();
  command.add("--deny", deny, "domain or address that mail may not go to")
      .value_name("NAME")
      .group(group)
      .repeatable()
      .excludes(only);
}

}  // namespace tavmail
