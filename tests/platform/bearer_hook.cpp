// How the ports of this tree are given tokens; another port has a give_tokens() of its own.

#include <cstring>
#include <string>

#include "tav_bearer_source.h"

namespace contract {

void give_tokens() {
  tav_bearer_source_set(
      [](void*, const tav_bearer_request* request, char* token, int32_t size) -> int32_t {
        if (std::strcmp(request->user, "nobody") == 0) return 0;
        const std::string made =
            (request->is_refused != 0 ? "new_token_of_" : "token_of_") + std::string(request->user);
        made.copy(token, static_cast<size_t>(size));
        return static_cast<int32_t>(made.size());
      },
      nullptr);
}

}  // namespace contract
