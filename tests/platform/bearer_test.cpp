#include <algorithm>
#include <cstring>
#include <string>

#include "tav_bearer.h"
#include "waits.h"

namespace contract {

// From now on the port gives "token_of_USER", and "new_token_of_USER" after a refusal, to every
// user but "nobody". bearer_hook.cpp, which a maker replaces.
void give_tokens();

}  // namespace contract

namespace {

struct answer {
  int32_t length;
  std::string token;
};

// As the library asks, with a guard around the buffer.
answer ask(const char* user, int32_t is_refused = 0) {
  constexpr size_t kGuard = 64;
  std::string buffer(TAV_BEARER_MAX + 2 * kGuard, '\x01');
  const tav_bearer_request request = {TAV_BEARER_POP3, "mail.example", user, is_refused, 1000};
  const contract::stopwatch watch;
  const int32_t length = tav_bearer_get(&request, &buffer[kGuard], TAV_BEARER_MAX);
  EXPECT_LT(watch.elapsed(), request.timeout_ms + 1000);
  EXPECT_LE(length, TAV_BEARER_MAX);
  const size_t used = static_cast<size_t>(std::clamp(length, 0, TAV_BEARER_MAX));
  for (const size_t begin : {size_t{0}, kGuard + TAV_BEARER_MAX})
    EXPECT_EQ(buffer.substr(begin, kGuard), std::string(kGuard, '\x01')) << "written outside";
  return {length, buffer.substr(kGuard, used)};
}

TEST(BearerContract, tells_users_apart_whoever_asks_at_the_same_time) {
  contract::give_tokens();
  std::vector<std::thread> threads;
  for (const char* user : {"anna", "bob", "nobody"}) {
    threads.emplace_back([user] {
      const bool is_nobody = std::strcmp(user, "nobody") == 0;
      for (int i = 0; i < 300; ++i) {
        const answer first = ask(user), second = ask(user, 1);
        EXPECT_EQ(first.token, is_nobody ? "" : std::string("token_of_") + user);
        EXPECT_EQ(second.token, is_nobody ? "" : std::string("new_token_of_") + user);
      }
    });
  }
  for (std::thread& one : threads) one.join();
}

}  // namespace
