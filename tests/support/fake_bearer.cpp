// fake_bearer.cpp - tav_bearer.h. It is a file of its own, because the linker takes it out of the
// archive only for a program that calls bear().

#include "fake_platform.h"
#include "tav_bearer.h"

namespace tav_test {

void fake_platform::bear(const std::string& token, const std::string& refreshed) {
  tokens[0] = token;
  tokens[1] = refreshed;
}

}  // namespace tav_test

// Gives as much as there is room for, and the length of the whole token.
int32_t tav_bearer_get(const tav_bearer_request* request, char* token, int32_t size) noexcept {
  using namespace tav_test;
  const net_entry entry;
  fake_platform& net = entry.net;
  net.begin("bearer", request->timeout_ms);
  net.require(size == TAV_BEARER_MAX, "bearer", "has another room");
  const bool is_smtp = request->service == TAV_BEARER_SMTP;
  const std::string asked = std::string(is_smtp ? "smtp " : "pop3 ") + request->server + " " +
                            request->user + (request->is_refused != 0 ? " refused" : "");
  const auto forced = net.forced("bearer");
  const std::string& given = net.tokens[request->is_refused];
  if (!forced) given.copy(token, static_cast<size_t>(size));
  return net.done("bearer", forced.value_or(static_cast<int32_t>(given.size())), asked);
}
