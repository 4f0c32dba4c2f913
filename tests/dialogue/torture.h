// torture.h - every call that can fail, failed in turn: a definite result, nothing left behind, and
// an object that works afterwards.

#ifndef TORTURE_H
#define TORTURE_H

#include <cstdio>

#include "scenario.h"

namespace dialogue {

// What is made to fail; "from": and everything behind it.
enum class fault {
  memory,
  memory_from,
  network,
  network_from,
  network_timeout,
  operator_new,
  operator_new_from,
};

// Runs with the nth call failing. `has_failed` becomes false when there were fewer calls.
template <typename Run>
TAV_EML_RESULT run_with_fault(fault kind, size_t n, tav_test::fake_memory& memory,
                              tav_test::fake_platform& net, const Run& run, bool& has_failed) {
  using tav_test::failing_new;
  if (kind == fault::operator_new || kind == fault::operator_new_from) {
    const failing_new failing(
        n, kind == fault::operator_new ? failing_new::once : failing_new::all_from);
    const TAV_EML_RESULT result = run();
    has_failed = failing.calls() >= n;
    return result;
  }
  if (kind == fault::memory) memory.fail(n);
  if (kind == fault::memory_from) memory.fail_from(n);
  if (kind == fault::network) net.fail_any(n);
  if (kind == fault::network_from) net.fail_any_from(n);
  if (kind == fault::network_timeout) net.fail_any(n, tav_test::fake_platform::outcome::timeout);
  const TAV_EML_RESULT result = run();
  has_failed =
      kind == fault::memory || kind == fault::memory_from ? memory.failed() : net.any_calls() >= n;
  memory.never_fail();
  net.never_fail();
  return result;
}

// Runs the scenario with the nth call failing; false when there were fewer calls.
inline bool survives(const scenario_maker& maker, fault kind, size_t n) {
  const std::unique_ptr<scenario> s = maker.make();
  bool has_failed = false;
  s->get_ready(false);
  const auto run = [&] { return s->run(); };
  const TAV_EML_RESULT result = run_with_fault(kind, n, s->memory, s->net, run, has_failed);
  s->check(result);
  EXPECT_TRUE(has_failed || result == TAV_EML_OK) << s->log.all();
  s->get_ready(true);
  EXPECT_EQ(s->run(), TAV_EML_OK) << "does not work afterwards";
  s->check(TAV_EML_OK);
  s->finish();
  EXPECT_TRUE(s->memory.clean());
  EXPECT_TRUE(s->net.clean());
  if (testing::Test::HasFailure()) std::printf("%s", s->log.all().c_str());
  return has_failed;
}

// Every scenario with every kind of fault at every call, up to the first failed check.
inline void torture(const std::vector<scenario_maker>& makers) {
  size_t points = 0;
  for (const scenario_maker& maker : makers) {
    for (const fault kind :
         {fault::memory, fault::memory_from, fault::network, fault::network_from,
          fault::network_timeout, fault::operator_new, fault::operator_new_from}) {
      if (kind >= fault::operator_new && !tav_test::failing_new::works()) continue;
      size_t n = 1;
      while (survives(maker, kind, n) && !testing::Test::HasFailure() && n < 5000) ++n;
      ASSERT_FALSE(testing::Test::HasFailure())
          << maker.name << ", fault " << static_cast<int>(kind) << ", call " << n;
      points += n - 1;
    }
  }
  std::printf("%zu points of failure tried\n", points);
}

}  // namespace dialogue

#endif
