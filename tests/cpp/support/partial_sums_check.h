// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The comparisons of partial sums.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_CHECK_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_CHECK_H_

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "support/partial_sums_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {

template <typename In, typename Weight>
::testing::AssertionResult SamePartialSums(const PartialSumsCase<In, Weight>& c,
                                           const ExactBuffer<int64_t>& expected,
                                           const ExactBuffer<int64_t>& actual,
                                           const std::string& path) {
  return SameArrays(expected.data(), actual.data(), c.count(), path,
                    [&c](int64_t i) { return c.Inputs(i); });
}

// The two comparisons, each on its own: the definition against the oracle, and each target's form
// against the definition, on the calling thread and by one of several pools in turn.
template <typename In, typename Weight>
::testing::AssertionResult CheckPartialSums(const PartialSumsCase<In, Weight>& c, int offset = 0) {
  const auto definition = c.Definition(offset);
  const auto oracle = SamePartialSums(c, c.Oracle(), definition, "HPartialSums definition");
  if (!oracle) return oracle;
  static size_t turn = 0;
  CallingThread calling_thread;
  BackwardParts backward(1);
  ThreadParts two(2, 1);
  ThreadParts five(5, 3);
  Workers* const pools[] = {&backward, &two, &five};
  for (const auto& [target, name] : AllTargets()) {
    const ForcedTarget forced(target);
    Workers* const pool = pools[turn++ % std::size(pools)];
    for (Workers* workers : {static_cast<Workers*>(&calling_thread), pool}) {
      const auto same = SamePartialSums(c, definition, c.Computed(workers, offset),
                                        std::string("partial sums, ") + name + ", " +
                                            std::to_string(workers->AtOnce()) + " at once");
      if (!same) return same;
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_CHECK_H_
