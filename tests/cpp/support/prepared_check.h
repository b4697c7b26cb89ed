// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The comparisons of a prepared layer, and what they took.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PREPARED_CHECK_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PREPARED_CHECK_H_

#include <gtest/gtest.h>

#include <iterator>
#include <optional>
#include <string>

#include "chain/plan.h"
#include "support/ledger.h"
#include "support/prepared_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {

inline void RanWide(WideSums sums) {
  if (sums == WideSums::kNone) return;
  const int index = static_cast<int>(sums) - static_cast<int>(WideSums::kNarrow);
  Ran(static_cast<Path>(static_cast<int>(Path::kPreparedWideNarrow) + index));
}

template <typename In, typename Out>
void RanPrepared(const PreparedCase<In, Out>& c, ChainPath path) {
  const auto index = static_cast<int>(path);  // in the order of the paths
  const Path first = c.is_depthwise ? Path::kPreparedDepthwiseStepwise : Path::kPreparedStepwise;
  const Path half = c.is_depthwise ? Path::kPreparedDepthwiseHalf : Path::kPreparedHalf;
  Ran(c.use_fp16_acc ? half : static_cast<Path>(static_cast<int>(first) + index));
  if (!IsDots(path) || c.bias.empty()) return;
  const bool is_apart = c.HasWideBias() || path == ChainPath::kDotRemainders;
  Ran(is_apart ? Path::kPreparedOwnWrapOfTheBias : Path::kPreparedSumsBeginWithTheBias);
}

// The two comparisons, each on its own: the definition against the oracle, and the layer that each
// target makes against the definition, on the calling thread and by one of several pools in turn.
// `path` is what is expected of a target with all instructions.
template <typename In, typename Out>
::testing::AssertionResult CheckPrepared(const PreparedCase<In, Out>& c,
                                         std::optional<ChainPath> path = std::nullopt,
                                         int offset = 0) {
  const PreparedOutput<Out> definition = c.Definition(offset);
  const auto oracle =
      SamePrepared(c, c.Oracle(), definition, "HPreparedConvolution definition", true);
  if (!oracle) return oracle;
  static size_t turn = 0;
  CallingThread calling_thread;
  BackwardParts backward(1);
  ThreadParts two(2, 1);
  ThreadParts five(5, 1);
  Workers* const pools[] = {&backward, &two, &five};
  for (const auto& [target, target_name] : AllTargets()) {
    const ForcedTarget forced(target);
    const auto layer = c.Prepare(&two);  // fewer than what calls it
    const std::optional<ChainPlan> plan = layer->plan();
    if (target == Target::kAvx512Vnni && path && plan) {
      const bool in_lanes =
          *path == ChainPath::kDotRemainders && (c.is_depthwise || !HasRemainders(target));
      const ChainPath expected = in_lanes ? ChainPath::kRounded : *path;
      if (plan->path != expected) {
        return ::testing::AssertionFailure() << "took plan " << static_cast<int>(plan->path)
                                             << ", not " << static_cast<int>(expected);
      }
    }
    Workers* const pool = pools[turn++ % std::size(pools)];
    for (Workers* workers : {static_cast<Workers*>(&calling_thread), pool}) {
      const auto actual = c.By(*layer, workers, offset);
      const auto same = SamePrepared(c, definition, actual,
                                     std::string("prepared layer, ") + target_name + ", " +
                                         std::to_string(workers->AtOnce()) + " at once",
                                     workers == &calling_thread);
      if (!same) return same;
    }
    RanWide(layer->wide_sums());
    if (layer->wide_sums() > WideSums::kNarrow) continue;
    if (plan) {
      RanPrepared(c, plan->path);
    } else {
      Ran(Path::kPreparedByDefinition);
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PREPARED_CHECK_H_
