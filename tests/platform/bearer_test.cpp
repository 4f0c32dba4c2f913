// tav_bearer.h. Where the tokens come from is a port's own: another port gives give_tokens() a body
// that makes it offer "token of USER", and "new token of USER" after a refusal, with "_" for the
// blanks, to every user but "nobody".

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tav_bearer_source.h"

namespace {

struct answer {
  int32_t length;
  std::string token;
};

// As the library asks, with a guard around the buffer. `timeout_ms` is long for a port that has it.
answer ask(const char* user, int32_t is_refused = 0) {
  constexpr size_t kGuard = 64;
  std::string buffer(TAV_BEARER_MAX + 2 * kGuard, '\x01');
  const tav_bearer_request request = {TAV_BEARER_POP3, "mail.example", user, is_refused, 1000};
  const int32_t length = tav_bearer_get(&request, &buffer[kGuard], TAV_BEARER_MAX);
  EXPECT_LE(length, TAV_BEARER_MAX);
  const size_t used = static_cast<size_t>(std::clamp(length, 0, TAV_BEARER_MAX));
  for (const size_t begin : {size_t{0}, kGuard + TAV_BEARER_MAX})
    EXPECT_EQ(buffer.substr(begin, kGuard), std::string(kGuard, '\x01')) << "written outside";
  return {length, buffer.substr(kGuard, used)};
}

void give_tokens() {
  tav_bearer_source_set(
      [](void*, const tav_bearer_request* request, char* token, int32_t size) -> int32_t {
        if (std::strcmp(request->user, "nobody") == 0) return 0;
        EXPECT_STREQ(request->server, "mail.example");
        EXPECT_EQ(request->service, TAV_BEARER_POP3);
        EXPECT_EQ(request->timeout_ms, 1000);
        const std::string made =
            (request->is_refused != 0 ? "new_token_of_" : "token_of_") + std::string(request->user);
        made.copy(token, static_cast<size_t>(size));
        return static_cast<int32_t>(made.size());
      },
      nullptr);
}

TEST(BearerContract, tells_users_apart_whoever_asks_at_the_same_time) {
  give_tokens();
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
  tav_bearer_source_set(nullptr, nullptr);
}

// What follows is the source's of this port: none, one that fails, one that says too much.
TEST(BearerSource, gives_no_token_where_there_is_none) {
  EXPECT_EQ(ask("anna").length, 0);
  const tav_bearer_source_fn sources[] = {
      [](void*, const tav_bearer_request*, char*, int32_t) -> int32_t { throw std::bad_alloc(); },
      [](void* context, const tav_bearer_request*, char*, int32_t) -> int32_t {
        return *static_cast<int32_t*>(context);
      },
  };
  int32_t failure = -1;
  for (const tav_bearer_source_fn source : sources) {
    tav_bearer_source_set(source, &failure);
    EXPECT_LE(ask("anna").length, 0);
  }
  tav_bearer_source_set(nullptr, nullptr);
}

}  // namespace
