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
#define BITFOLD_LOOP_TABLE SummedLoops(kSummedLoops)
#include "vector/vector_loops.inc"

}  // namespace

const SummedLoops& CurrentSummedLoops() { return CurrentLoops(); }

}  // namespace bitfold
