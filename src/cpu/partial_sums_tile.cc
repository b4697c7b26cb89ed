// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_tile.h"

#include <algorithm>
#include <cstdint>

#include "vector/intrinsics.h"
#include "vector/target.h"

namespace bitfold {
namespace {

#define BITFOLD_LOOPS "cpu/partial_sums_loops.inc"
#define BITFOLD_SIZE(Loop, pixels)                             \
  {                                                            \
    {Loop<pixels, false, false>, Loop<pixels, false, true>}, { \
      Loop<pixels, true, false>, Loop<pixels, true, true>      \
    }                                                          \
  }
#define BITFOLD_SIZES(Loop) \
  { BITFOLD_SIZE(Loop, 8), BITFOLD_SIZE(Loop, 4), BITFOLD_SIZE(Loop, 2), BITFOLD_SIZE(Loop, 1) }
#define BITFOLD_LOOP_TABLE \
  SummedLoops { BITFOLD_SIZES(Ranges), BITFOLD_SIZES(Count), Record, Bound, PackWords, AddOutput }
#include "vector/vector_loops.inc"
#undef BITFOLD_SIZES
#undef BITFOLD_SIZE

}  // namespace

const SummedLoops& CurrentSummedLoops() { return CurrentLoops(); }

}  // namespace bitfold
