// Whole sessions in which the server says what the input says.
//
// Control bytes: failing allocation, and whether all later ones fail; bytes per call of the network
// (0: all); the network call that fails (0: none); flags (1 all later calls fail too, 2 with a
// time-out, 4 the server closes when it has said all); TLS mode; kind of login, from 5 on with
// tokens. Then a line: what the application does, one letter for each step. The rest is what the
// server says; a 0x1E waits until it has something to say again.

#include <algorithm>

#include "device.h"
#include "fuzz_input.h"

namespace {

constexpr const char* kSteps[] = {"s send text",   "t test",       "C connect",   "E close",
                                  "T test",        "S stat",       "L list 0",    "M list 1",
                                  "N next",        "H header",     "B body",      "O header-only",
                                  "P part",        "Q part-body",  "K skip-part", "X skip-mail",
                                  "D delete-mail", "U delete-uid", "R noop"};

void set_up(dialogue::device& player, bool receives, fuzz::input& in) {
  const auto number = [&in] { return std::to_string(in.number()); };
  const auto all = [](unsigned flags) { return (flags & 1) != 0 ? "+" : ""; };
  dialogue::case_row row;
  const auto add = [&row](const char* verb, const std::string& rest) {
    row.statements.push_back({verb, rest, ""});
  };
  const std::string block = number();
  add("fail", "memory " + block + all(in.number()));
  const std::string most = number(), call = number();
  if (most != "0") add("limit", most);
  const unsigned flags = in.number(), tls = in.number() % 4, login = in.number();
  add("fail", "any " + call + all(flags) + ((flags & 2) != 0 ? " timeout" : " error"));
  add("offers", "tls PLAIN LOGIN CRAM-MD5 DIGEST-MD5");
  add("serves", tls == 1 ? "implicit-tls" : "plain");
  add("set", "tls " + std::to_string(tls));
  if (login > 4) add("token", "toktoktok1 toktoktok2");
  add("set", receives ? "apop " + std::to_string(login % 2) : "auth " + std::to_string(login % 5));
  if (!receives) {
    add("attach", "data");
    add("field", "subject \xe6\x96\x87 mail");
    add("field", "charset iso-2022-jp");
  }
  player.set_up(row);
  player.net.attack.cut_closes = (flags & 4) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  testing::GTEST_FLAG(break_on_failure) = true;
  fuzz::input in = {{data, data + size}};
  const size_t controls = std::min<size_t>(size, 7);
  const size_t end = std::min(in.rest.find('\n', controls), size);
  const std::string steps = in.rest.substr(controls, std::min<size_t>(end - controls, 64));
  const bool receives = steps.empty() || steps[0] < 'a';
  dialogue::device player(receives);
  set_up(player, receives, in);
  tav_test::tampering& server = player.net.attack;
  server.active = server.ends_there = true;
  in.rest.erase(0, end + 1 - controls);
  for (const std::string& said : dialogue::pieces_of(in.rest, "\x1e"))
    server.replaced.emplace(server.replaced.size() + 1, said);

  for (const char step : steps) {
    const auto* const found = std::find_if(std::begin(kSteps), std::end(kSteps),
                                           [step](const char* one) { return one[0] == step; });
    if (found == std::end(kSteps) || (step < 'a') != receives) continue;
    std::string rest = *found + 2;
    const std::string verb = dialogue::word_of(rest);
    const bool is_repeated = step == 'B' || step == 'Q';  // until all is there
    for (int failures = 0, most = is_repeated ? 4 : 1; failures < most;)
      failures = player.call({verb, rest, ""}) == 0 && is_repeated ? 0 : failures + 1;
  }
  player.leave();
  player.check_order(quorvelmida::TAV_EML_OK);
  EXPECT_LE(player.net.any_calls, 20000 + 8 * in.rest.size());
  return 0;
}
