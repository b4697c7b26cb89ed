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
#define BITFOLD_RANGES_OF(pixels)                                  \
  {                                                                \
    {Ranges<pixels, false, false>, Ranges<pixels, false, true>}, { \
      Ranges<pixels, true, false>, Ranges<pixels, true, true>      \
    }                                                              \
  }
#define BITFOLD_LOOP_TABLE                                                                    \
  SummedLoops {                                                                               \
    {BITFOLD_RANGES_OF(8), BITFOLD_RANGES_OF(4), BITFOLD_RANGES_OF(2), BITFOLD_RANGES_OF(1)}, \
        {Count<false>, Count<true>}, Record, Bound, PackWords, AddOutput                      \
  }
#include "vector/vector_loops.inc"
#undef BITFOLD_RANGES_OF

}  // namespace

const SummedLoops& CurrentSummedLoops() { return CurrentLoops(); }

}  // namespace bitfold
