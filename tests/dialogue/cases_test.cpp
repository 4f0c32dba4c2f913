// The tables of dialogues, as they are and with a byte in each call of the platform.

#include <algorithm>
#include <set>

#include "device.h"

namespace dialogue {
namespace {

struct cases : testing::TestWithParam<const dialogue_case*> {};

// Not one that counts calls or would take long.
bool may_be_sliced(const case_row& row) {
  return std::all_of(row.statements.begin(), row.statements.end(), [](const statement& one) {
    static const std::set<std::string> counting = {"fail", "limit", "sends", "wire"};
    return counting.count(one.verb) == 0 && expand(one.rest).size() < 20000;
  });
}

TEST_P(cases, play) {
  for (const case_row& row : GetParam()->rows) {
    for (const bool is_sliced : {false, true}) {
      if (is_sliced && !may_be_sliced(row)) continue;
      SCOPED_TRACE(GetParam()->file + ":" + std::to_string(row.line) +
                   (is_sliced ? ", sliced" : ""));
      device player(GetParam()->receives());
      if (is_sliced) player.net.recv_limit = 1;
      if (is_sliced) player.net.send_limit = 7;
      player.play(row);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(dialogue, cases, testing::ValuesIn(all_cases()), test_name);

}  // namespace
}  // namespace dialogue
