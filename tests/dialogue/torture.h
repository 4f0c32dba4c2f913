// torture.h - every call that can fail, failed in turn: a definite result, nothing left behind, and
// an object that works afterwards.

#ifndef TORTURE_H
#define TORTURE_H

#include <cstdio>
#include <functional>

#include "dialogue_fixture.h"
#include "fail_new.h"

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

// Calls `survives(kind, n)`, which is false when there are fewer than n calls, for every kind and
// n, up to the first failed check; adds to `points`.
template <typename Survives>
void try_every_fault(const char* name, const Survives& survives, size_t& points) {
  for (const fault kind : {fault::memory, fault::memory_from, fault::network, fault::network_from,
                           fault::network_timeout, fault::operator_new, fault::operator_new_from}) {
    if (kind >= fault::operator_new && !tav_test::failing_new::works()) continue;
    size_t n = 1;
    while (survives(kind, n) && !testing::Test::HasFailure() && n < 5000) ++n;
    ASSERT_FALSE(testing::Test::HasFailure())
        << name << ", fault " << static_cast<int>(kind) << ", call " << n;
    points += n - 1;
  }
}

}  // namespace dialogue

#endif
