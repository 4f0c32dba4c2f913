// torture.h - every call that can fail, failed in turn: a definite result, nothing left behind, and
// an object that works afterwards.

#ifndef TORTURE_H
#define TORTURE_H

#include <cstdio>

#include "quorvelmida/tav_eml_mlutl_mail_exception.h"
#include "scenario.h"

namespace dialogue {

enum class fault { memory, memory_throws, network, network_timeout, operator_new };

// Runs with the nth call failing, or with it and everything behind it. `has_failed` becomes false
// when there were fewer calls.
inline TAV_EML_RESULT run_with_fault(fault kind, bool all_from, size_t n, scenario& s,
                                     bool& has_failed) {
  if (kind == fault::operator_new) {
    const failing_new failing(n, all_from ? failing_new::all_from : failing_new::once);
    const TAV_EML_RESULT result = s.run();
    has_failed = failing.calls() >= n;
    return result;
  }
  const bool is_memory = kind == fault::memory || kind == fault::memory_throws;
  if (is_memory) {
    if (kind == fault::memory_throws) {
      s.memory.fail_by([] { throw new quorvelmida::tav_eml_mlutl_mail_exception("no memory"); });
    }
    all_from ? s.memory.fail_from(n) : s.memory.fail(n);
  } else {
    const auto how =
        kind == fault::network ? fake_platform::outcome::error : fake_platform::outcome::timeout;
    all_from ? s.net.fail_any_from(n, how) : s.net.fail_any(n, how);
  }
  const TAV_EML_RESULT result = s.run();
  has_failed = is_memory ? s.memory.failed() : s.net.any_calls() >= n;
  s.memory.never_fail();
  s.memory.fail_by(nullptr);
  s.net.never_fail();
  return result;
}

// Runs the scenario with the nth call failing; false when there were fewer calls.
inline bool survives(const scenario_maker& maker, fault kind, bool all_from, size_t n) {
  const std::unique_ptr<scenario> s = maker.make();
  bool has_failed = false;
  s->get_ready(false);
  const TAV_EML_RESULT result = run_with_fault(kind, all_from, n, *s, has_failed);
  s->check(result);
  if (kind == fault::memory || kind == fault::memory_throws) s->check_verdict(result);
  EXPECT_TRUE(has_failed || result == TAV_EML_OK) << s->log.all();
  expect_recovery(*s);
  if (testing::Test::HasFailure()) std::printf("%s", s->log.all().c_str());
  return has_failed;
}

// Every scenario with every kind of fault at every call, up to the first failed check.
inline void torture(const std::vector<scenario_maker>& makers) {
  size_t points = 0;
  for (const scenario_maker& maker : makers) {
    for (const fault kind : {fault::memory, fault::memory_throws, fault::network,
                             fault::network_timeout, fault::operator_new}) {
      if (kind == fault::operator_new && !failing_new::works()) continue;
      for (const bool all_from : {false, true}) {
        size_t n = 1;
        while (survives(maker, kind, all_from, n) && !testing::Test::HasFailure() && n < 5000) ++n;
        ASSERT_FALSE(testing::Test::HasFailure())
            << maker.name << ", fault " << static_cast<int>(kind) << ", call " << n;
        points += n - 1;
      }
    }
  }
  std::printf("%zu points of failure tried\n", points);
}

}  // namespace dialogue

#endif
