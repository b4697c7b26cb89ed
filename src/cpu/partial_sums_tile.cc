// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_tile.h"

#include <algorithm>
#include <cstdint>

#include "vector/target.h"

namespace bitfold {
namespace {

#define BITFOLD_LOOPS "cpu/partial_sums_loops.inc"
#define BITFOLD_RANGES_OF(pixels, depthwise) \
  { Ranges<pixels, depthwise, false>, Ranges<pixels, depthwise, true> }
#define BITFOLD_LOOP_TABLE                                                                    \
  SummedLoops {                                                                               \
    {{BITFOLD_RANGES_OF(1, false), BITFOLD_RANGES_OF(1, true)},                               \
     {BITFOLD_RANGES_OF(kSummedPixels, false), BITFOLD_RANGES_OF(kSummedPixels, true)}},      \
        {Count<false>, Count<true>}, Record, ChannelRanges, Bound, Look, IsWhole, CountWhole, \
        Include, CountSteps, End                                                              \
  }
#include "vector/vector_loops.inc"
#undef BITFOLD_RANGES_OF

}  // namespace

const SummedLoops& CurrentSummedLoops() { return CurrentLoops(); }

}  // namespace bitfold
