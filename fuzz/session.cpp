// Whole sessions in which the server says what the input says.
//
// Control bytes: failing allocation, and whether all later ones fail; bytes per call of the network
// (0: all); the network call that fails (0: none); flags (1 all later calls fail too, 2 with a
// time-out, 4 the server closes when it has said all); TLS mode; kind of login, from 5 on with
// tokens. Then a line: what the application does, one letter for each step. The rest is what the
// server says; a 0x1E waits until it has something to say again.

#include <algorithm>

#include "device.h"

namespace {

constexpr const char* kSteps[] = {"s send text",   "t test",       "C connect",   "E close",
                                  "T test",        "S stat",       "L list 0",    "M list 1",
                                  "N next",        "H header",     "B body",      "O header-only",
                                  "P part",        "Q part-body",  "K skip-part", "X skip-mail",
                                  "D delete-mail", "U delete-uid", "R noop"};

// "0" is the control byte 0, "1" is 1 and so on, so that seeds are written with an editor.
unsigned control(const std::string& in, size_t i) {
  return i < in.size() ? static_cast<unsigned char>(in[i]) ^ unsigned { '0' } : 0;
}

void set_up(dialogue::device& player, bool receives, const std::string& in) {
  const auto number = [&in](size_t i) { return std::to_string(control(in, i)); };
  const unsigned flags = control(in, 4), tls = control(in, 5) % 4, login = control(in, 6);
  dialogue::case_row row;
  const auto add = [&row](const char* verb, const std::string& rest) {
    row.statements.push_back({verb, rest, ""});
  };
  add("fail", "memory " + number(0) + ((control(in, 1) & 1) != 0 ? "+" : ""));
  if (control(in, 2) != 0) add("limit", number(2));
  add("fail", "any " + number(3) + ((flags & 1) != 0 ? "+" : "") +
                  ((flags & 2) != 0 ? " timeout" : " error"));
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
  player.memory.watch_for({});  // the server may say anything
  player.net.attack.cut_closes = (flags & 4) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  testing::GTEST_FLAG(break_on_failure) = true;
  const std::string in(data, data + size);
  const size_t start = std::min<size_t>(size, 7), end = std::min(in.find('\n', start), size);
  const std::string steps = in.substr(start, std::min<size_t>(end - start, 64));
  const std::string words = in.substr(std::min(end + 1, size));
  const bool receives = steps.empty() || steps[0] < 'a';
  dialogue::device player(receives);
  set_up(player, receives, in);
  tav_test::tampering& server = player.net.attack;
  server.active = server.ends_there = true;
  for (const std::string& said : dialogue::pieces_of(words, "\x1e"))
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
  EXPECT_LE(player.net.any_calls, 20000 + 8 * words.size());
  return 0;
}
